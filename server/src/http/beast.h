#pragma once

// Boost 1.74's Asio uses std::exchange without including <utility>, so it must come first; its
// scheduler also trips GCC's -Wnull-dereference once inlined.
// clang-format off
#include <utility>
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#pragma GCC diagnostic pop
// clang-format on
