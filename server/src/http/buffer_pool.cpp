#include "http/buffer_pool.h"

#include <vector>

namespace tovrel::server::buffer_pool {

namespace {

constexpr std::size_t kMaxBuffers = 64;
constexpr std::size_t kMaxCapacity = 1024 * 1024;
constexpr std::size_t kInitialCapacity = 32 * 1024;

thread_local std::vector<std::string> tFree;

}  // namespace

std::string take() {
    if (tFree.empty()) {
        std::string buffer;
        buffer.reserve(kInitialCapacity);
        return buffer;
    }
    std::string buffer = std::move(tFree.back());
    tFree.pop_back();
    return buffer;
}

void give(std::string&& buffer) {
    if (tFree.size() >= kMaxBuffers || buffer.capacity() > kMaxCapacity || buffer.capacity() < 1024) {
        return;
    }
    buffer.clear();
    tFree.push_back(std::move(buffer));
}

}  // namespace tovrel::server::buffer_pool
