#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "http/http_server.h"
#include "tovrel/platform/thread_annotations.h"
#include "tovrel_server/server.h"

namespace tovrel::server {

/// The app key of a preview's devices: both catalogues get this one app, so that they differ only in their
/// campaigns, places and offers.
inline constexpr std::string_view kPreviewAppKey = "tovrel-preview";

/// Runs previews of a draft catalogue (ServerOptions::preview) one at a time on a thread of its own, so
/// that the admin thread goes on answering while one runs for its seconds of CPU time.
class PreviewRunner {
  public:
    using Preview = std::function<std::string(const PreviewJob&)>;

    /// `preview` unset: there are no previews (available() is false).
    explicit PreviewRunner(Preview preview);
    /// Waits for the preview that runs, if any. The thread that owns it.
    ~PreviewRunner();
    PreviewRunner(const PreviewRunner&) = delete;
    PreviewRunner& operator=(const PreviewRunner&) = delete;

    /// Any thread.
    bool available() const { return static_cast<bool>(preview_); }
    /// Starts a preview of `draft` (a place file's text) against `live` (the catalogue as it is) with
    /// devices starting at `now` for `days` days; its answer (200 with the comparison, 400 or 422 with
    /// PreviewRefused's words) goes to `respond` from the preview's thread. False when a preview runs
    /// already. Any thread.
    bool start(std::string draft, std::string live, double now, std::size_t days, Respond respond);

  private:
    HttpReply run(const std::string& draft, const std::string& live, double now, std::size_t days) const;

    const Preview preview_;
    std::atomic<bool> busy_{false};
    platform::Mutex mutex_;
    std::thread thread_ TOVREL_GUARDED_BY(mutex_);
};

}  // namespace tovrel::server
