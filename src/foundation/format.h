#pragma once

#include <string>

namespace tovrel {

/// printf into a std::string. The format is checked at compile time.
std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// "%f": six decimals (48.1371539 → "48.137154").
std::string formatF(double value);
/// "%0.f": rounded to a whole number, no decimals (timestamps, accuracies).
std::string format0f(double value);
/// Append what formatF() and format0f() give, without a string of their own (thousands of numbers go
/// out in one diagnostics message).
void appendFormatF(std::string& out, double value);
void appendFormat0f(std::string& out, double value);
/// "%d".
std::string formatD(int value);
/// "%ld".
std::string formatLd(long value);

}  // namespace tovrel
