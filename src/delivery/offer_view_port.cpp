#include "targeting/offer_view_port.h"

#include "tovrel/location_manager.h"
#include "tovrel/offer_full_view_controller.h"

namespace tovrel::targeting {

std::shared_ptr<OfferFullViewController> presentOfferView(Environment& environment,
                                                          const OfferViewRequest& request) {
    return presentOfferFullView(environment, OfferViewContent{request.eventId, request.deviceEventId,
                                                              request.mediaType, request.mediaURL});
}

}  // namespace tovrel::targeting
