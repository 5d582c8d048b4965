#pragma once

#include <cstddef>
#include <string>

namespace tovrel::server {

/// Answer buffers kept per thread and reused, so that building an answer neither allocates nor
/// page-faults once a thread has served a few: freeing a 30 kB buffer per request lets the allocator
/// hand its pages back to the kernel and fault them in again on the next request. A connection's
/// answers are built and sent on one thread, so buffers return to the thread that took them.
namespace buffer_pool {

/// An empty string with the capacity of an earlier answer when one is free. The calling thread.
std::string take();
/// Gives a buffer back for reuse on the calling thread; the pool keeps a bounded number of buffers of
/// bounded size and frees the rest.
void give(std::string&& buffer);

}  // namespace buffer_pool
}  // namespace tovrel::server
