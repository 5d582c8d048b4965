#pragma once

#include <functional>
#include <nlohmann/json.hpp>

#include "store/sql_source.h"

namespace tovrel::server {

/// Runs a function in one store transaction (Service::transact, or a store's own).
using StoreTransact = std::function<void(const std::function<void(const SqlSource&)>&)>;

/// The answer of an admin route that the command line runs too: its status and JSON body.
struct AdminJsonReply {
    unsigned status = 200;
    nlohmann::json body;
};

}  // namespace tovrel::server
