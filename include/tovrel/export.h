#pragma once

/// Marks what a shared build of the libraries exports: every public class and function carries it,
/// everything else is hidden (the libraries are compiled with -fvisibility=hidden). A static build
/// exports everything, so the mark changes nothing there.
#if defined(__GNUC__) || defined(__clang__)
#define TOVREL_EXPORT __attribute__((visibility("default")))
#else
#define TOVREL_EXPORT
#endif
