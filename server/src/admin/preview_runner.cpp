#include "admin/preview_runner.h"

#include <stdexcept>

#include "common/request_fields.h"
#include "common/temporary_file.h"
#include "tovrel_server/server.h"

namespace tovrel::server {

using platform::Lock;

namespace {

HttpReply reply(unsigned status, std::string body) {
    HttpReply out;
    out.status = status;
    out.body = std::move(body);
    out.route = Route::admin;
    return out;
}

}  // namespace

PreviewRunner::PreviewRunner(Preview preview) : preview_(std::move(preview)) {}

PreviewRunner::~PreviewRunner() {
    Lock lock(mutex_);
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool PreviewRunner::start(std::string draft, std::string live, double now, std::size_t days,
                          Respond respond) {
    if (busy_.exchange(true)) {
        return false;
    }
    Lock lock(mutex_);
    if (thread_.joinable()) {
        thread_.join();
    }
    thread_ = std::thread(
        [this, draft = std::move(draft), live = std::move(live), now, days, respond = std::move(respond)] {
            HttpReply answer = run(draft, live, now, days);
            // Free before the answer goes: a client that asks again at once finds no preview running.
            busy_ = false;
            respond(std::move(answer));
        });
    return true;
}

HttpReply PreviewRunner::run(const std::string& draft, const std::string& live, double now,
                             std::size_t days) const {
    try {
        const TemporaryFile draftFile("tovrel-preview", ".geojson");
        draftFile.write(draft);
        const TemporaryFile liveFile("tovrel-preview", ".geojson");
        liveFile.write(live);
        return reply(200, preview_({draftFile.path(), liveFile.path(), now, days}));
    } catch (const PreviewRefused& refused) {
        return reply(refused.status(), errorJson(refused.what()));
    } catch (const std::exception& error) {
        return reply(500, errorJson(std::string("the preview failed: ") + error.what()));
    }
}

}  // namespace tovrel::server
