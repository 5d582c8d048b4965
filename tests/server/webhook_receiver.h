#pragma once

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "test_support.h"

namespace tovrel::server::test {

/// The receiver (webhook_receiver.py) on 127.0.0.1: what it was sent, and how it answers next.
class WebhookReceiver {
  public:
    explicit WebhookReceiver(const TempDir& dir)
        : record_((dir / "record.jsonl").string()),
          process_({"python3", std::string(TOVREL_SERVER_TEST_DIR) + "/webhook_receiver.py", "--port", "0",
                    "--record", record_},
                   true) {
        const std::string line = process_.readLine(std::chrono::seconds(10));
        port_ = line.starts_with("port ") ? std::stoi(line.substr(5)) : 0;
    }
    bool started() const { return port_ != 0; }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    /// The secrets it checks signatures with, in this order ("validWith" holds their indexes).
    void trust(const std::vector<std::string>& secrets) {
        HttpClient client(static_cast<uint16_t>(port_));
        EXPECT_EQ(client.post("/_secrets", json(secrets)).status, 204);
    }
    /// How it answers from now on: {"status", "retryAfter", "location", "delayMs"}.
    void answer(const json& script) { std::ofstream(record_ + ".script") << script.dump(); }
    /// Every POST it was sent, as recorded: "id", "timestamp", "path", "body", "validWith", "status".
    std::vector<json> received() const {
        std::vector<json> lines;
        std::ifstream in(record_);
        for (std::string line; std::getline(in, line);) {
            // A line being written while this reads is taken at the next read.
            const json r = json::parse(line, nullptr, false);
            if (r.is_object() && r.value("method", "POST") == "POST" && r.value("path", "") != "/_secrets") {
                lines.push_back(r);
            }
        }
        return lines;
    }

  private:
    std::string record_;
    tovrel::test::ChildProcess process_;
    int port_ = 0;
};

}  // namespace tovrel::server::test
