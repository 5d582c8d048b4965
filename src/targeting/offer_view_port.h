#pragma once

#include <memory>

namespace tovrel {

class Environment;
class OfferFullViewController;
struct OfferViewRequest;

namespace targeting {

/// What the location monitor needs of offer delivery, declared here so that targeting includes
/// nothing above it; delivery defines it (delivery/offer_view_port.cpp). Presents the offer view for
/// `request` and returns its controller, which the caller keeps while the view may be on screen (null
/// when the environment has no views). Main thread.
std::shared_ptr<OfferFullViewController> presentOfferView(Environment& environment,
                                                          const OfferViewRequest& request);

}  // namespace targeting
}  // namespace tovrel
