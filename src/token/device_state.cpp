#include "token/device_state.h"

#include "token/shared_state.h"

#include <map>

namespace veltra {

namespace {

struct DeviceEntry {
    bool pinValidated = false;
    Pin pin;
    bool initialised = false;
};

using DeviceMap = std::map<std::string, DeviceEntry>;

// Call with the shared state mutex held. Never destroyed, like the mutex.
DeviceMap& devices() {
    static auto* const map = new DeviceMap;
    return *map;
}

// Call with the shared state mutex held.
const DeviceEntry* findDevice(const std::string& serial) {
    const auto found = devices().find(serial);
    return found == devices().end() ? nullptr : &found->second;
}

} // namespace

bool isPinValidated(const std::string& serial) {
    const std::lock_guard lock(sharedStateMutex());
    const DeviceEntry* device = findDevice(serial);
    return device != nullptr && device->pinValidated;
}

Pin getPin(const std::string& serial) {
    const std::lock_guard lock(sharedStateMutex());
    const DeviceEntry* device = findDevice(serial);
    return device != nullptr ? device->pin : Pin();
}

bool hasUsablePin(const std::string& serial) {
    const std::lock_guard lock(sharedStateMutex());
    const DeviceEntry* device = findDevice(serial);
    return device != nullptr && device->pinValidated && !device->pin.empty();
}

void storePin(const std::string& serial, const Pin& pin) {
    const std::lock_guard lock(sharedStateMutex());
    DeviceEntry& device = devices()[serial];
    device.pin = pin;
    device.pinValidated = true;
}

void forgetPin(const std::string& serial) {
    const std::lock_guard lock(sharedStateMutex());
    const auto found = devices().find(serial);
    if (found != devices().end()) found->second.pin = Pin();
}

void forgetPin(const std::string& serial, const Pin& pin) {
    const std::lock_guard lock(sharedStateMutex());
    const auto found = devices().find(serial);
    if (found != devices().end() && found->second.pin.view() == pin.view()) found->second.pin = Pin();
}

bool isInitialised(const std::string& serial) {
    const std::lock_guard lock(sharedStateMutex());
    const DeviceEntry* device = findDevice(serial);
    return device != nullptr && device->initialised;
}

void markInitialised(const std::string& serial) {
    const std::lock_guard lock(sharedStateMutex());
    devices()[serial].initialised = true;
}

std::vector<std::string> forgetDisconnected(const std::set<std::string>& connected) {
    std::vector<std::string> gone;
    const std::lock_guard lock(sharedStateMutex());
    for (auto it = devices().begin(); it != devices().end();) {
        if (connected.contains(it->first)) {
            ++it;
            continue;
        }
        gone.push_back(it->first);
        it = devices().erase(it);
    }
    return gone;
}

} // namespace veltra
