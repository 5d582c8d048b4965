#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/location_manager.h"
#include "tovrel/offer_sink.h"
#include "tovrel/platform/platform.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel {

class DataService;
class Environment;
class NotificationCenter;
class OfferFullViewController;

namespace delivery {

/// The offers the location monitor linked, on their way to the user: the pending offers (with their
/// own lock), the held message's timer, the local notification, the event alert and the offer view.
/// Always owned through a std::shared_ptr (create()): alerts and timers call back into it.
///
/// Threads: offers() from any thread, everything else on the main loop.
class OfferDesk final : public OfferSink, public std::enable_shared_from_this<OfferDesk> {
  public:
    /// Any thread. A desk on `platform`'s ports that posts on `center` and reports the user's answers
    /// through `service`. It holds the three by reference, as the monitor holds its environment: the
    /// main loop's timers own the monitor, so owning the ports here would keep the loop alive forever.
    OfferDesk(const platform::Platform& platform, NotificationCenter& center, DataService& service);

    /// Any thread. A desk for `environment` whose offer views open on its views port (when it has one)
    /// and stay referenced until the next one opens.
    static std::shared_ptr<OfferDesk> create(Environment& environment);

    void keep(const nlohmann::json& places) override;
    void deliver(const LinkedOffer& offer, bool withOfferView) override;
    void notify(const std::string& message, int deviceEventId, bool withOfferView) override;
    void showEventAlert(const std::string& message, int deviceEventId, bool withOfferView) override;
    void releaseHeld(const Notification& notification, bool withOfferView) override;
    void openFromNotification(const Notification& notification) override;
    void openOfferView(const nlohmann::json& offerElement) override;
    void setOfferViewOpener(std::function<void(const OfferViewRequest&)> opener) override;
    void renumberBadges() override;
    void answerAlert(long alertTag, int buttonIndex) override;
    void forget() override;

    [[nodiscard]] std::vector<nlohmann::json> offers() const override;
    [[nodiscard]] std::vector<OfferViewRequest> offerViewRequests() const override;
    [[nodiscard]] const std::shared_ptr<platform::Timer>& heldMessageTimer() const override;
    [[nodiscard]] const std::optional<platform::LocalNotification>& lastNotification() const override;

  private:
    void hold(const std::string& message, const nlohmann::json& deviceEventId);
    void reportStatus(const nlohmann::json& deviceEventId, const char* statusCode);
    /// Removes `offer` from the pending offers, looking first where it stood at `index`.
    void remove(const nlohmann::json& offer, std::size_t index);

    const platform::Platform& platform_;
    NotificationCenter& center_;
    DataService& service_;

    mutable platform::Mutex mutex_;
    std::vector<nlohmann::json> offers_ TOVREL_GUARDED_BY(mutex_);

    std::shared_ptr<platform::Timer> heldMessageTimer_;
    std::optional<platform::LocalNotification> lastNotification_;
    std::function<void(const OfferViewRequest&)> opener_;
    std::deque<OfferViewRequest> requests_;
    /// The offer view opened last, kept while it may be on screen.
    std::shared_ptr<OfferFullViewController> shownView_;
};

}  // namespace delivery
}  // namespace tovrel
