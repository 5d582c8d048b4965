#include "http/http_server.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "http/listener.h"
#include "http/listener_state.h"
#include "observability/log.h"

namespace tovrel::server {

namespace {

constexpr auto kStopGrace = std::chrono::seconds(3);

}  // namespace

Admission RequestHandler::admit(const HttpRequest&) {
    return {};
}

struct HttpServer::Impl {
    RequestHandler& handler;
    HttpOptions options;
    const Logger& logger;
    Metrics& metrics;
    mutable std::mutex mutex;
    std::vector<std::unique_ptr<net::io_context>> contexts;
    std::vector<net::executor_work_guard<IoExecutor>> guards;
    std::unique_ptr<ListenerState> state;
    std::shared_ptr<Listener> listener;
    std::vector<std::thread> threads;
    std::atomic<int> running{0};
    uint16_t port = 0;
};

namespace {

ssl::context makeTlsContext(const HttpOptions& options) {
    ssl::context context(ssl::context::tls_server);
    context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                        ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 | ssl::context::single_dh_use);
    if (SSL_CTX_set_cipher_list(context.native_handle(), options.tlsCiphers.c_str()) != 1) {
        throw std::runtime_error("no TLS 1.2 cipher suite matches \"" + options.tlsCiphers + "\"");
    }
    SSL_CTX_set_options(context.native_handle(), SSL_OP_CIPHER_SERVER_PREFERENCE);
    beast::error_code ec;
    context.use_certificate_chain_file(options.tlsCertificateFile, ec);
    if (ec) {
        throw std::runtime_error("cannot read the TLS certificate " + options.tlsCertificateFile + ": " +
                                 ec.message());
    }
    context.use_private_key_file(options.tlsKeyFile, ssl::context::pem, ec);
    if (ec && ERR_GET_REASON(static_cast<unsigned long>(ec.value())) == X509_R_KEY_VALUES_MISMATCH) {
        throw std::runtime_error("the TLS key " + options.tlsKeyFile + " does not match the certificate " +
                                 options.tlsCertificateFile);
    }
    if (ec) {
        throw std::runtime_error("cannot read the TLS key " + options.tlsKeyFile + ": " + ec.message());
    }
    if (SSL_CTX_check_private_key(context.native_handle()) != 1) {
        throw std::runtime_error("the TLS key " + options.tlsKeyFile + " does not match the certificate " +
                                 options.tlsCertificateFile);
    }
    return context;
}

}  // namespace

HttpServer::HttpServer(RequestHandler& handler, HttpOptions options, const Logger& logger, Metrics& metrics)
    : impl_(new Impl{handler, std::move(options), logger, metrics, {}, {}, {}, {}, {}, {}, {}, 0}) {}

HttpServer::~HttpServer() {
    stop();
}

uint16_t HttpServer::start() {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    if (m.listener) {
        throw std::runtime_error("the server is already running");
    }
    if (m.options.tlsCertificateFile.empty() != m.options.tlsKeyFile.empty()) {
        throw std::runtime_error("TLS needs both a certificate and a key");
    }
    beast::error_code ec;
    const auto address = net::ip::make_address(m.options.address, ec);
    if (ec) {
        throw std::runtime_error("cannot listen on " + m.options.address + ": not an IP address");
    }
    auto state = std::make_unique<ListenerState>(m.handler, m.options, m.logger, m.metrics);
    if (!m.options.tlsCertificateFile.empty()) {
        state->tls.emplace(makeTlsContext(m.options));
    }
    const int threads = std::max(1, m.options.threads);
    for (int i = 0; i < threads; ++i) {
        m.contexts.push_back(std::make_unique<net::io_context>(1));
        m.guards.push_back(net::make_work_guard(*m.contexts.back()));
    }
    m.state = std::move(state);
    try {
        m.listener = std::make_shared<Listener>(m.contexts, *m.state, tcp::endpoint(address, m.options.port));
    } catch (...) {
        m.guards.clear();
        m.contexts.clear();
        m.state.reset();
        throw;
    }
    m.port = m.listener->port();
    m.listener->run();
    m.running = threads;
    for (int i = 0; i < threads; ++i) {
        m.threads.emplace_back([&m, &ioc = *m.contexts[static_cast<std::size_t>(i)]] {
            for (;;) {
                try {
                    ioc.run();
                    break;
                } catch (const std::exception& e) {
                    m.logger.write(
                        LogLevel::error,
                        m.logger.line(LogLevel::error, "request thread caught").add("error", e.what()));
                }
            }
            --m.running;
        });
    }
    return m.port;
}

void HttpServer::stop(const std::function<void()>& drain) {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    if (!m.listener) {
        return;
    }
    m.state->stopping = true;
    m.listener->close();
    m.guards.clear();
    {
        Lock registry(m.state->registryMutex);
        for (auto& [conn, entry] : m.state->connections) {
            entry.closeIfIdle();
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kStopGrace;
    while (m.running > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (drain) {
        drain();
    }
    for (auto& ioc : m.contexts) {
        ioc->stop();
    }
    for (std::thread& t : m.threads) {
        t.join();
    }
    m.threads.clear();
    m.listener.reset();
    m.contexts.clear();
    m.state.reset();
    m.port = 0;
}

uint16_t HttpServer::port() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port;
}

int HttpServer::openConnections() const {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->state) {
        return 0;
    }
    Lock registry(impl_->state->registryMutex);
    return impl_->state->open;
}

}  // namespace tovrel::server
