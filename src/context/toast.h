#pragma once

#include <string>

namespace tovrel {

class Environment;

/// Main thread. A message box without buttons, dismissed after two seconds.
void showToast(Environment& environment, const std::string& message);
/// Main thread. A message box titled "Message" with one "OK" button and no delegate.
void showMessageAlert(Environment& environment, const std::string& message);

}  // namespace tovrel
