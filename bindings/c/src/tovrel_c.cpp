// The functions of tovrel.h: argument checks, then the device's operations on its home thread.
#include <cstdlib>
#include <cstring>
#include <string>

#include "call_guard.h"
#include "device.h"
#include "notification_json.h"
#include "tovrel/data_service.h"
#include "tovrel/linux/location_sources.h"
#include "tovrel/notification_center.h"
#include "tovrel/notification_names.h"
#include "tovrel/session_manager.h"
#include "tovrel/tovrel.h"
#include "tovrel/version.h"

struct tovrel_options {
    tovrel::capi::DeviceOptions value;
};

struct tovrel_device {
    std::unique_ptr<tovrel::capi::Device> value;
};

namespace {

using tovrel::capi::CallError;
using tovrel::capi::Device;
using tovrel::capi::guarded;
using tovrel::capi::required;

Device& deviceOf(tovrel_device* device) {
    return *required(device, "the device")->value;
}

char* copyText(const std::string& text) {
    auto* out = static_cast<char*>(std::malloc(text.size() + 1));
    if (out == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(out, text.c_str(), text.size() + 1);
    return out;
}

/// A status callback as the data service's completion: called once, with "status" or the error.
tovrel::DataService::StatusCompletion statusCompletion(tovrel_status_fn done, void* user) {
    return [done, user](const tovrel::Json& status, const tovrel::ServiceError& error) {
        if (done == nullptr) {
            return;
        }
        if (error) {
            done(nullptr, error->localizedDescription.c_str(), user);
        } else {
            done(tovrel::capi::jsonText(status).c_str(), nullptr, user);
        }
    };
}

/// Queues `request` with the stored session key, or tells `done` there is none.
template <typename Request>
void withSessionKey(Device& device, tovrel_status_fn done, void* user, Request request) {
    device.perform([&device, done, user, request = std::move(request)] {
        auto& environment = device.parts().environment;
        const auto key = environment.sessionManager().sessionKey();
        if (!key) {
            if (done != nullptr) {
                done(nullptr, "no session key is stored: start a session first", user);
            }
            return;
        }
        request(environment.dataService(), *key, statusCompletion(done, user));
    });
}

}  // namespace

extern "C" {

const char* tovrel_version(void) {
    return tovrel::kVersion;
}

const char* tovrel_last_error(void) {
    return tovrel::capi::lastError();
}

void tovrel_string_free(char* text) {
    std::free(text);
}

tovrel_options* tovrel_options_new(void) {
    tovrel_options* options = nullptr;
    guarded([&] { options = new tovrel_options; });
    return options;
}

void tovrel_options_free(tovrel_options* options) {
    delete options;
}

tovrel_status tovrel_options_set_service_url(tovrel_options* options, const char* url) {
    return guarded([&] {
        std::string value = required(url, "the service URL");
        if (value.rfind("http://", 0) != 0 && value.rfind("https://", 0) != 0) {
            throw CallError(TOVREL_ERROR_INVALID_ARGUMENT, "the service URL starts with http:// or https://");
        }
        while (!value.empty() && value.back() == '/') {
            value.pop_back();
        }
        required(options, "the options")->value.serviceURL = value;
    });
}

tovrel_status tovrel_options_set_data_directory(tovrel_options* options, const char* path) {
    return guarded(
        [&] { required(options, "the options")->value.dataDirectory = path == nullptr ? "" : path; });
}

tovrel_status tovrel_options_set_application_id(tovrel_options* options, const char* id) {
    return guarded([&] {
        const std::string value = required(id, "the application id");
        if (value.empty() || value.find('/') != std::string::npos) {
            throw CallError(TOVREL_ERROR_INVALID_ARGUMENT,
                            "the application id is a non-empty name without '/'");
        }
        required(options, "the options")->value.applicationId = value;
    });
}

tovrel_status tovrel_options_set_gpsd(tovrel_options* options, const char* address) {
    return guarded([&] {
        required(options, "the options")->value.positions =
            tovrel::linuxbackend::gpsdOptionsForAddress(required(address, "the gpsd address"));
    });
}

tovrel_status tovrel_options_set_replay(tovrel_options* options, const char* path, double speed, int loop) {
    return guarded([&] {
        if (!(speed > 0) || speed > 1e6) {
            throw CallError(TOVREL_ERROR_INVALID_ARGUMENT,
                            "the replay speed is a factor above 0 (1: as recorded)");
        }
        tovrel::linuxbackend::ReplayOptions replay;
        replay.file = required(path, "the replay file");
        replay.speed = speed;
        replay.loop = loop != 0;
        required(options, "the options")->value.positions = replay;
    });
}

tovrel_status tovrel_options_set_loop_mode(tovrel_options* options, tovrel_loop_mode mode) {
    return guarded([&] {
        if (mode != TOVREL_LOOP_CALLER && mode != TOVREL_LOOP_OWN_THREAD) {
            throw CallError(TOVREL_ERROR_INVALID_ARGUMENT,
                            "the loop mode is TOVREL_LOOP_CALLER or TOVREL_LOOP_OWN_THREAD");
        }
        required(options, "the options")->value.loopMode = mode;
    });
}

tovrel_status tovrel_options_set_log_handler(tovrel_options* options, tovrel_log_fn fn, void* user) {
    return guarded([&] {
        auto& value = required(options, "the options")->value;
        value.logHandler = fn;
        value.logUser = user;
    });
}

tovrel_status tovrel_device_new(const tovrel_options* options, tovrel_device** device) {
    return guarded([&] {
        *required(device, "the device pointer") = nullptr;
        const tovrel::capi::DeviceOptions defaults;
        auto made = Device::make(options == nullptr ? defaults : options->value);
        *device = new tovrel_device{std::move(made)};
    });
}

tovrel_status tovrel_device_free(tovrel_device* device) {
    return guarded([&] {
        if (device == nullptr) {
            return;
        }
        Device::destroy(std::move(device->value));
        delete device;
    });
}

tovrel_status tovrel_device_run(tovrel_device* device) {
    return guarded([&] { deviceOf(device).run(); });
}

tovrel_status tovrel_device_step(tovrel_device* device, int milliseconds) {
    return guarded([&] { deviceOf(device).step(milliseconds); });
}

tovrel_status tovrel_device_stop(tovrel_device* device) {
    return guarded([&] { deviceOf(device).stop(); });
}

tovrel_status tovrel_device_set_present_notifications(tovrel_device* device, int on) {
    return guarded([&] {
        Device& d = deviceOf(device);
        d.perform([&d, on] { d.parts().environment.sessionManager().setPresentNotifications(on != 0); });
    });
}

tovrel_status tovrel_device_set_present_offer_view(tovrel_device* device, int on) {
    return guarded([&] {
        Device& d = deviceOf(device);
        d.perform([&d, on] { d.parts().environment.sessionManager().setPresentOfferView(on != 0); });
    });
}

tovrel_status tovrel_device_set_active(tovrel_device* device, int active) {
    return guarded([&] {
        Device& d = deviceOf(device);
        d.perform([&d, active] { d.parts().setActive(active != 0); });
    });
}

tovrel_status tovrel_device_start_session(tovrel_device* device, const char* sdk_key, int use_location) {
    return guarded([&] {
        Device& d = deviceOf(device);
        std::string key = required(sdk_key, "the SDK key");
        if (key.empty()) {
            throw CallError(TOVREL_ERROR_INVALID_ARGUMENT, "the SDK key is empty");
        }
        d.perform([&d, key = std::move(key), use_location] {
            auto& session = d.parts().environment.sessionManager();
            if (use_location != 0) {
                session.startSessionUsingLocation(key);
            } else {
                session.startSession(key);
            }
        });
    });
}

tovrel_status tovrel_device_stop_session(tovrel_device* device) {
    return guarded([&] {
        Device& d = deviceOf(device);
        d.perform([&d] { d.parts().environment.sessionManager().stopSession(); });
    });
}

tovrel_status tovrel_device_session_key(tovrel_device* device, char** key) {
    return guarded([&] {
        *required(key, "the key pointer") = nullptr;
        Device& d = deviceOf(device);
        const auto stored = d.ask<std::optional<std::string>>(
            [&d] { return d.parts().environment.sessionManager().sessionKey(); });
        if (stored) {
            *key = copyText(*stored);
        }
    });
}

tovrel_status tovrel_device_observe(tovrel_device* device, const char* name, tovrel_notification_fn fn,
                                    void* user, uint64_t* token) {
    return guarded([&] {
        Device& d = deviceOf(device);
        required(fn, "the callback");
        *required(token, "the token pointer") = d.parts().environment.notificationCenter().addObserver(
            name == nullptr ? "" : name, nullptr, [fn, user](const tovrel::Notification& notification) {
                const std::string object =
                    tovrel::capi::jsonText(tovrel::capi::notificationObjectJson(notification.object));
                fn(notification.name.c_str(), object.c_str(), user);
            });
    });
}

tovrel_status tovrel_device_unobserve(tovrel_device* device, uint64_t token) {
    return guarded([&] { deviceOf(device).parts().environment.notificationCenter().removeObserver(token); });
}

tovrel_status tovrel_device_forward_notification(tovrel_device* device, const char* notification_json) {
    return guarded([&] {
        Device& d = deviceOf(device);
        auto notification =
            tovrel::capi::localNotificationFromJson(required(notification_json, "the notification"));
        d.perform([&d, notification = std::move(notification)] {
            d.parts().environment.notificationCenter().post(tovrel::kTovrelNotificationReceived,
                                                            notification);
        });
    });
}

tovrel_status tovrel_device_clear_events(tovrel_device* device, tovrel_status_fn done, void* user) {
    return guarded([&] {
        withSessionKey(deviceOf(device), done, user,
                       [](tovrel::DataService& service, const std::string& key, auto completion) {
                           service.sendDeviceClearWithSessionKey(key, std::move(completion));
                       });
    });
}

tovrel_status tovrel_device_add_tag(tovrel_device* device, const char* tag, const char* value,
                                    const char* group, tovrel_status_fn done, void* user) {
    return guarded([&] {
        withSessionKey(
            deviceOf(device), done, user,
            [t = std::string(required(tag, "the tag")), v = std::string(required(value, "the tag value")),
             g = std::string(required(group, "the group tag"))](tovrel::DataService& service,
                                                                const std::string& key, auto completion) {
                service.addDeviceTagWithSessionKey(key, t, v, g, std::move(completion));
            });
    });
}

tovrel_status tovrel_device_delete_tag(tovrel_device* device, const char* tag, const char* group,
                                       tovrel_status_fn done, void* user) {
    return guarded([&] {
        withSessionKey(
            deviceOf(device), done, user,
            [t = std::string(required(tag, "the tag")), g = std::string(required(group, "the group tag"))](
                tovrel::DataService& service, const std::string& key, auto completion) {
                service.deleteDeviceTagWithSessionKey(key, t, g, std::move(completion));
            });
    });
}

}  // extern "C"
