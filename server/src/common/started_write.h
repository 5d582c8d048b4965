#pragma once

#include <exception>
#include <functional>

namespace tovrel::server {

/// What became of a write that was started without waiting for it: called once, with nullptr when it
/// committed or with what it threw, on the thread that committed it. Must not throw.
using WriteDone = std::function<void(std::exception_ptr)>;

/// Runs a job on a thread that may wait for the database; false when no thread can take it now.
using Launch = std::function<bool(std::function<void()>)>;

}  // namespace tovrel::server
