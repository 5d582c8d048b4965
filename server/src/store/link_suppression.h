#pragma once

#include <cstdint>

#include "store/report.h"
#include "store/store.h"

namespace tovrel::server {

/// Why a new link is held back, or none: the rules of its campaign and of the device's app, counted
/// from the rows of `db` in the caller's transaction (which holds the device's row, so that replicas
/// linking one device take turns). Only numbers go into the SQL. Runs on the caller's thread.
Suppression linkSuppression(const SqlSource& db, int64_t device, const NewLink& link, double now);

}  // namespace tovrel::server
