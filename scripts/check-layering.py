#!/usr/bin/env python3
"""Fails when an #include points the wrong way.

Inside the component (src/ and its public headers in include/tovrel/) the folders form layers, each
of which may include only the layers below it:

    ports (include/tovrel/platform) < foundation < context < service < targeting < delivery < session < screens

A public header belongs to the folder of the source file that implements it (include/tovrel/x.h goes
with src/<folder>/x.cpp), or to the layer HEADER_LAYERS names. Targeting hands offers to an offer sink it declares
and delivery implements; the session composes the two. Backends (platform/) include no component header, only the ports and their own
headers; tovrel-server shares only the lock annotations, the distance, the JSON text readers, the programs'
command-line helper, where the installed data lies and the wire contract (tovrel/protocol.h). Service
endpoints ("/v1/...", "/v2/...") are spelled only in tovrel/protocol.h, and inside the component only
src/service/ includes it.

tovrel-sim (tools/sim/) runs the component as a host does: it includes the SDK's public headers, the
backends' and the tools' headers, tovrel-server's public header and its own, never a source folder.

tovrel-server's folders (server/src/) are layered the same way:

    common < observability < catalog < store (and store/sqlite, store/postgres) < http < api, webhooks < admin
    < server.cpp

Arrows that still point the wrong way are listed in ALLOWED with the reason; the check fails when one
of them disappears too, so the list shrinks as the debt is paid.

Usage: scripts/check-layering.py [--list]   (--list prints every arrow between folders)
"""

import re
import subprocess
import sys
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

LAYERS = {
    "ports": 0,
    "foundation": 1,
    "context": 2,
    "service": 3,
    "targeting": 4,
    "delivery": 5,
    "session": 6,
    "screens": 7,
}

# Public headers with no source file of the same name.
HEADER_LAYERS = {
    "export.h": "ports",
    "version.h": "ports",
    "notification_names.h": "foundation",
    "preferences_keys.h": "foundation",
    "protocol.h": "ports",
    "offer_sink.h": "targeting",
}

# Headers outside the component that it may include (generated build configuration).
EXTERNAL_OK = {"tovrel_build_config.h"}

# (including file, included layer): the arrows that still point up, each with its reason.
ALLOWED = {
    ("src/context/environment.cpp", "service"):
        "the environment makes the shared instances (DataService, AnalyticsManager) on first use",
    ("src/context/environment.cpp", "session"):
        "the environment makes the shared SessionManager on first use",
}

# (tovrel-sim's file, header) that it still includes from tovrel-server's sources, each with its reason.
SIM_ALLOWED = {
    ("tools/sim/html_report.cpp", "catalog/catalog_data.h"):
        "the report names places as the server reads the GeoJSON file, with the server's own reader",
    ("tools/sim/main.cpp", "common/temporary_file.h"):
        "the catalogue fetched for a preview is handed to the run as a file, made as the server makes its own",
    ("tools/sim/replay.cpp", "common/temporary_file.h"):
        "the catalogue fetched for a replay is handed to the run as a file, made as the server makes its own",
}

SERVER_LAYERS = {
    "common": 0,
    "observability": 1,
    "rules": 2,
    "catalog": 3,
    "store": 4,
    "http": 5,
    "api": 6,
    "webhooks": 6,
    "admin": 7,
    ".": 8,
}

SERVER_SHARED = ("tovrel/platform/thread_annotations.h", "tovrel/platform/distance.h",
                 "tovrel/platform/json_text.h", "tovrel/platform/json_scanner.h", "tovrel/platform/decimal_text.h",
                 "tovrel/protocol.h", "tovrel/tools/", "tovrel/paths/")
PROTOCOL = "include/tovrel/protocol.h"
BACKEND_OWN = ("tovrel/platform/", "tovrel/export.h", "tovrel/version.h")

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)
ENDPOINT = re.compile(r'"/v\d+/[a-z/]*"')


def tracked(*patterns):
    out = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", *patterns],
                         cwd=ROOT, check=True, capture_output=True, text=True).stdout
    return sorted({line for line in out.splitlines() if line and (ROOT / line).is_file()})


def public_header_layers(sources):
    layers = {}
    for path in sources:
        parts = Path(path).parts
        if len(parts) == 3 and parts[0] == "src" and parts[2].endswith(".cpp"):
            layers[Path(parts[2]).stem + ".h"] = parts[1]
    layers.update(HEADER_LAYERS)
    return layers


def layer_of_include(name, public_layers):
    """The layer an #include names, None when outside the component, or '?' when unknown."""
    if name in EXTERNAL_OK:
        return None
    if name.startswith("tovrel/platform/"):
        return "ports"
    if name.startswith("tovrel/"):
        rest = name[len("tovrel/"):]
        if "/" in rest:
            return None  # a backend's or a tool's header
        return public_layers.get(rest, "?")
    folder = name.split("/", 1)[0]
    return folder if folder in LAYERS else "?"


def layer_of_file(path, public_layers):
    parts = Path(path).parts
    if parts[0] == "src":
        return parts[1] if len(parts) > 2 else None
    if parts[:2] == ("include", "tovrel"):
        if len(parts) > 3:
            return "ports" if parts[2] == "platform" else None
        return public_layers.get(parts[2])
    return None


def server_layer(folder):
    """The layer of a folder under server/src/ ("store/sqlite" is the store's)."""
    return folder.split("/", 1)[0]


def check_server(arrows):
    """The arrows between tovrel-server's folders: each points down, or stays in its folder."""
    problems = []
    src = ROOT / "server" / "src"
    for path in tracked("server/src/*.cpp", "server/src/*.h"):
        here = server_layer(str(Path(path).parent.relative_to("server/src")))
        if here not in SERVER_LAYERS:
            problems.append(f"{path}: server/src/{here}/ is not a known folder (add it to SERVER_LAYERS)")
            continue
        for name in INCLUDE.findall((ROOT / path).read_text(encoding="utf-8", errors="replace")):
            if name.startswith("tovrel") or not (src / name).is_file():
                continue
            there = server_layer(str(Path(name).parent))
            if there == here:
                continue
            arrows[(f"server:{here}", f"server:{there}")] += 1
            if SERVER_LAYERS.get(there, 99) > SERVER_LAYERS[here]:
                problems.append(f'{path} (server {here}): #include "{name}" points up to {there}')
    return problems


def check_sim(used_allowances):
    """tovrel-sim's includes: public headers (the SDK's, the backends', the tools', the server's) and
    its own, never a source folder of the component or the server."""
    problems = []
    for path in tracked("tools/sim/*.cpp", "tools/sim/*.h"):
        for name in INCLUDE.findall((ROOT / path).read_text(encoding="utf-8", errors="replace")):
            if name.startswith(("tovrel/", "tovrel_server/")) or (ROOT / Path(path).parent / name).is_file():
                continue
            if (path, name) in SIM_ALLOWED:
                used_allowances.add((path, name))
                continue
            problems.append(f'{path}: tovrel-sim includes "{name}", which is no public header')
    return problems


def code_of(text):
    """`text` without its // comments (enough for the endpoint check: no endpoint follows a URL's //)."""
    return "\n".join(line.split("//", 1)[0] for line in text.splitlines())


def main():
    list_arrows = "--list" in sys.argv[1:]
    if any(a in ("-h", "--help") for a in sys.argv[1:]):
        print(__doc__.strip())
        return 0
    unknown_args = [a for a in sys.argv[1:] if a not in ("--list",)]
    if unknown_args:
        print(f"check-layering: unknown option '{unknown_args[0]}'", file=sys.stderr)
        return 2

    sources = tracked("src/*.cpp", "src/*.h")
    public = [p for p in tracked("include/tovrel/*.h") if p.count("/") == 2 or p.startswith("include/tovrel/platform/")]
    public_layers = public_header_layers(sources)
    problems = []
    arrows = Counter()
    used_allowances = set()

    for path in sources + public:
        here = layer_of_file(path, public_layers)
        if here is None:
            if path.startswith("include/tovrel/") and path.count("/") == 2 and path != "include/tovrel/tovrel.h":
                problems.append(f"{path}: no layer (add it to HEADER_LAYERS)")
            continue
        text = (ROOT / path).read_text(encoding="utf-8", errors="replace")
        for name in INCLUDE.findall(text):
            there = layer_of_include(name, public_layers)
            if there is None or there == here:
                continue
            if there == "?":
                problems.append(f'{path}: #include "{name}" names no known layer')
                continue
            arrows[(here, there)] += 1
            if LAYERS[there] < LAYERS[here]:
                continue
            if (path, there) in ALLOWED:
                used_allowances.add((path, there))
                continue
            problems.append(f'{path} ({here}): #include "{name}" points up to {there}')
        if here != "service" and '#include "tovrel/protocol.h"' in text and path != PROTOCOL:
            problems.append(f"{path} ({here}): includes the wire contract; only src/service/ talks to the service")

    for path in tracked("platform/*.cpp", "platform/*.h"):
        for name in INCLUDE.findall((ROOT / path).read_text(encoding="utf-8", errors="replace")):
            if name.split("/", 1)[0] in LAYERS or "src/" in name:
                problems.append(f'{path}: a backend includes the component\'s sources ("{name}")')
                continue
            if not name.startswith("tovrel/"):
                continue
            rest = name[len("tovrel/"):]
            if "/" in rest and not name.startswith("tovrel/platform/"):
                continue  # a backend's own header
            if not name.startswith(BACKEND_OWN):
                problems.append(f'{path}: a backend includes the component ("{name}")')

    for path in tracked("server/*.cpp", "server/*.h"):
        for name in INCLUDE.findall((ROOT / path).read_text(encoding="utf-8", errors="replace")):
            if name.startswith("tovrel/") and not name.startswith(SERVER_SHARED):
                problems.append(f'{path}: tovrel-server includes "{name}" from the SDK')

    problems += check_server(arrows)
    sim_used = set()
    problems += check_sim(sim_used)
    for key in sorted(set(SIM_ALLOWED) - sim_used):
        problems.append(f"{key[0]} no longer includes {key[1]}: drop it from SIM_ALLOWED")
    for path in tracked("src/*", "include/*", "server/*", "tools/*", "platform/*", "bindings/*"):
        if path != PROTOCOL and path.endswith((".cpp", ".h")):
            if ENDPOINT.search(code_of((ROOT / path).read_text(encoding="utf-8", errors="replace"))):
                problems.append(f"{path}: spells a service endpoint; name it through tovrel/protocol.h")

    for key in sorted(set(ALLOWED) - used_allowances):
        problems.append(f"{key[0]} no longer includes {key[1]}: drop it from ALLOWED")

    if list_arrows:
        for (here, there), count in sorted(arrows.items()):
            print(f"{here} -> {there}: {count}")
    if problems:
        print(f"check-layering: {len(problems)} problem(s):", file=sys.stderr)
        for problem in problems:
            print(f"  {problem}", file=sys.stderr)
        return 1
    print(f"check-layering: every #include points down ({len(ALLOWED)} known exceptions in ALLOWED, "
          f"{len(SIM_ALLOWED)} in SIM_ALLOWED); endpoints are spelled only in {PROTOCOL}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
