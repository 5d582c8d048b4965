#include "admin/preview_runner.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/request_fields.h"
#include "tovrel_server/server.h"

namespace tovrel::server {

using platform::Lock;

namespace {

// A file of the preview's own in the temporary folder, removed with this object.
class PreviewFile {
  public:
    explicit PreviewFile(const std::string& bytes) {
        std::string name =
            (std::filesystem::temp_directory_path() / "tovrel-preview-XXXXXX.geojson").string();
        const int fd = ::mkstemps(name.data(), 8);
        if (fd < 0) {
            throw std::runtime_error("cannot create a file in " +
                                     std::filesystem::temp_directory_path().string());
        }
        ::close(fd);
        path_ = name;
        std::ofstream out(path_, std::ios::binary | std::ios::trunc);
        out << bytes;
        if (!out.flush()) {
            throw std::runtime_error("cannot write " + path_);
        }
    }
    PreviewFile(const PreviewFile&) = delete;
    PreviewFile& operator=(const PreviewFile&) = delete;
    ~PreviewFile() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

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

bool PreviewRunner::start(std::string draft, std::string live, double now, Respond respond) {
    if (busy_.exchange(true)) {
        return false;
    }
    Lock lock(mutex_);
    if (thread_.joinable()) {
        thread_.join();
    }
    thread_ = std::thread(
        [this, draft = std::move(draft), live = std::move(live), now, respond = std::move(respond)] {
            HttpReply answer = run(draft, live, now);
            // Free before the answer goes: a client that asks again at once finds no preview running.
            busy_ = false;
            respond(std::move(answer));
        });
    return true;
}

HttpReply PreviewRunner::run(const std::string& draft, const std::string& live, double now) const {
    try {
        const PreviewFile draftFile(draft);
        const PreviewFile liveFile(live);
        return reply(200, preview_(draftFile.path(), liveFile.path(), now));
    } catch (const PreviewRefused& refused) {
        return reply(refused.status(), errorJson(refused.what()));
    } catch (const std::exception& error) {
        return reply(500, errorJson(std::string("the preview failed: ") + error.what()));
    }
}

}  // namespace tovrel::server
