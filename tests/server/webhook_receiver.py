#!/usr/bin/env python3
"""A webhook endpoint for the tests: checks the signatures of what it is sent and records it.

Usage: webhook_receiver.py --port 0 --record FILE --secret whsec_... [--secret ...]

Prints "port N" on its first line of output once it listens on 127.0.0.1. For every request it appends
one JSON line to FILE: {"id", "timestamp", "path", "method", "body" (parsed JSON or null), "validWith"
(indexes of the secrets whose signature is among webhook-signature's), "status" (what it answered),
"concurrent" (requests in hand when this one came, itself included), "peer" (the client's port)}.
The line is written before the answer goes out. Each request is answered as FILE + ".script" says, read
afresh each time when present: {"status": 500, "retryAfter": "120", "location": "http://...",
"delayMs": 100}; without it, 204. POST /_secrets with a JSON array of secrets replaces the secrets.
Quits on SIGTERM.
"""

import argparse
import base64
import binascii
import hashlib
import hmac
import json
import os
import signal
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

lock = threading.Lock()
secrets = []
in_hand = 0


def signature(secret, msg_id, timestamp, body):
    """The v1 signature of a message, or None for a secret that is not base64."""
    try:
        key = base64.b64decode(secret.removeprefix("whsec_"), validate=True)
    except (binascii.Error, ValueError):
        return None
    signed = msg_id.encode() + b"." + timestamp.encode() + b"." + body
    return base64.b64encode(hmac.new(key, signed, hashlib.sha256).digest()).decode()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        self.receive()

    def do_POST(self):
        self.receive()

    def receive(self):
        global in_hand
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        if self.command == "POST" and self.path == "/_secrets":
            with lock:
                secrets[:] = json.loads(body)
            return self.answer(204, {})
        with lock:
            in_hand += 1
            concurrent = in_hand
            keys = list(secrets)
        script_path = self.server.record + ".script"
        script = {}
        if os.path.exists(script_path):
            with open(script_path, encoding="utf-8") as f:
                script = json.load(f)
        time.sleep(script.get("delayMs", 0) / 1000)
        msg_id = self.headers.get("webhook-id", "")
        timestamp = self.headers.get("webhook-timestamp", "")
        sent = [s[3:] for s in self.headers.get("webhook-signature", "").split() if s.startswith("v1,")]
        valid = []
        for index, secret in enumerate(keys):
            expected = signature(secret, msg_id, timestamp, body)
            if expected and any(hmac.compare_digest(expected, s) for s in sent):
                valid.append(index)
        try:
            parsed = json.loads(body)
        except ValueError:
            parsed = None
        status = script.get("status", 204)
        line = {"id": msg_id, "timestamp": timestamp, "path": self.path, "method": self.command,
                "body": parsed, "validWith": valid, "status": status, "concurrent": concurrent,
                "peer": self.client_address[1]}
        with lock:
            with open(self.server.record, "a", encoding="utf-8") as f:
                f.write(json.dumps(line) + "\n")
            # Out of hand before the answer, so that the request it lets the client make counts alone.
            in_hand -= 1
        self.answer(status, script)

    def answer(self, status, script):
        self.send_response(status)
        if "retryAfter" in script:
            self.send_header("Retry-After", script["retryAfter"])
        if "location" in script:
            self.send_header("Location", script["location"])
        text = b'{"answer": "dropped by the sender"}'
        if status != 204:
            self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        if status != 204:
            self.wfile.write(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--record", required=True)
    parser.add_argument("--secret", action="append", default=[])
    args = parser.parse_args()
    secrets.extend(args.secret)
    server = ThreadingHTTPServer(("127.0.0.1", args.port), Handler)
    server.record = args.record
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    print(f"port {server.server_address[1]}", flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
