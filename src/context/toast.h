#pragma once

#include <string>

namespace tovrel {

class Environment;
namespace platform {
class AlertPresenter;
}

/// Main thread. A message box without buttons, dismissed after two seconds.
void showToast(Environment& environment, const std::string& message);
/// Main thread. A message box titled "Message" with one "OK" button and no delegate.
void showMessageAlert(platform::AlertPresenter& alerts, const std::string& message);

}  // namespace tovrel
