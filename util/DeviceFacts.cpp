#include "util/DeviceFacts.h"

#include "framework/Keys.h"
#include "platform/base/SettledOnce.h"
#include "platform/crypto/Uuid.h"
#include "platform/device/DeviceQuery.h"
#include "platform/value/Text.h"

#include <algorithm>

namespace quorvane {

namespace {

std::string lowercasedName(const Dictionary* userInfo, std::string_view key) {
    const std::string* name = userInfo != nullptr ? userInfo->string(key) : nullptr;
    return name != nullptr ? platform::lowercased(*name) : std::string();
}

}  // namespace

std::optional<std::string> productVersion() {
    return platform::deviceInformation("ProductVersion");
}

std::optional<std::string> buildVersion() {
    return platform::deviceInformation("BuildVersion");
}

std::optional<std::string> productType() {
    return platform::deviceInformation("ProductType");
}

std::optional<std::string> deviceName() {
    return platform::deviceInformation("DeviceName");
}

std::optional<std::string> hardwareModel() {
    return platform::deviceInformation("HWModelStr");
}

std::optional<std::string> serialNumber() {
    return platform::deviceInformation("SerialNumber");
}

bool isInternalBuild() {
    static platform::SettledOnce<bool> internal(
        [] { return platform::deviceInformation("ReleaseType") == "Internal"; });
    return internal.value();
}

void copyDeviceIdentifier(std::span<char> buffer) {
    const std::optional<std::string> identifier = platform::deviceInformation("UniqueDeviceID");
    if (!identifier || identifier->size() >= buffer.size()) return;
    std::copy(identifier->begin(), identifier->end(), buffer.begin());
    buffer[identifier->size()] = '\0';
    buffer.back() = '\0';
}

std::string userInfoKey(const Dictionary* userInfo) {
    return lowercasedName(userInfo, kQuorvaneUserInfoClientName) + ':' +
           lowercasedName(userInfo, kQuorvaneUserInfoServiceName);
}

const std::string& processIdentifier() {
    static const std::string identifier = platform::randomUuidText();
    return identifier;
}

}  // namespace quorvane
