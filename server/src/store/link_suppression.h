#pragma once

#include <cstdint>

#include "store/report.h"
#include "store/store.h"

namespace tovrel::server {

/// What the rules make of a new link.
struct LinkVerdict {
    Suppression reason = Suppression::none;  ///< why it is held back, or none
    bool control = false;  ///< the device is in the campaign's control group (whatever held it back)
};

/// The rules of a new link's campaign and of the device's app, counted from the rows of `db` in the
/// caller's transaction (which holds the device's row, so that replicas linking one device take
/// turns). Only numbers go into the SQL. Runs on the caller's thread.
LinkVerdict linkSuppression(const SqlSource& db, int64_t device, const NewLink& link, double now);

/// A link as held back, read from `db`; nullopt when there is no such link or it was delivered. Runs on
/// the caller's thread.
std::optional<HeldBackLink> readHeldBack(const SqlSource& db, int64_t deviceEvent);

}  // namespace tovrel::server
