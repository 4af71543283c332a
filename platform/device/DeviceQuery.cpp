#include "platform/device/DeviceQuery.h"

#include "platform/base/FileManager.h"
#include "platform/base/Root.h"
#include "platform/formats/TomlFile.h"

#include <sys/utsname.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>

namespace quorvane::platform {

namespace {

using Answer = std::optional<std::string>;

std::string readText(const char* file) {
    const std::optional<Data> bytes = readFile(file, std::size_t{64} * 1024);
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

/// Without the whitespace and NULs around it; nothing when that is all there is.
Answer trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == '\0' || std::isspace(static_cast<unsigned char>(c)) != 0; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text.empty() ? std::nullopt : Answer(text);
}

/// A fact that the firmware tells: from the DMI tables, else from the device tree. A device-tree file may
/// hold several texts, each ended by a NUL; the first counts.
Answer firmware(const char* dmiFile, const char* deviceTreeFile) {
    if (auto fact = trimmed(readText(dmiFile))) return fact;
    const std::string texts = readText(deviceTreeFile);
    return trimmed(std::string_view(texts).substr(0, texts.find('\0')));
}

/// The value of a variable in os-release(5).
Answer osRelease(std::string_view variable) {
    const std::string text = readText("/etc/os-release");
    for (std::string_view rest = text; !rest.empty();) {
        std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (!line.starts_with(variable) || line.substr(variable.size(), 1) != "=") continue;
        line.remove_prefix(variable.size() + 1);
        if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'') && line.back() == line.front())
            line = line.substr(1, line.size() - 2);
        return trimmed(line);
    }
    return std::nullopt;
}

/// 32 hexadecimal digits: machine-id(5).
Answer machineId() {
    sd_id128_t id{};
    if (::sd_id128_get_machine(&id) < 0) return std::nullopt;
    std::array<char, SD_ID128_STRING_MAX> text{};
    return std::string(::sd_id128_to_string(id, text.data()));
}

utsname kernel() {
    utsname names{};
    ::uname(&names);
    return names;
}

/// Rolling distributions state no version and most state no build: the kernel's release stands in for both.
Answer release(const char* field) {
    Answer stated = osRelease(field);
    return stated ? stated : trimmed(kernel().release);
}

/// Containers, and machines whose firmware does not say what they are, answer with their architecture.
Answer productType() {
    Answer product = firmware("/sys/class/dmi/id/product_name", "/proc/device-tree/model");
    return product ? product : trimmed(kernel().machine);
}

Answer hardwareModel() {
    return firmware("/sys/class/dmi/id/board_name", "/proc/device-tree/compatible");
}

Answer serialNumber() {
    return firmware("/sys/class/dmi/id/product_serial", "/proc/device-tree/serial-number");
}

constexpr std::array<std::string_view, 8> kKeys{"UniqueDeviceID", "ProductVersion", "BuildVersion",
                                                "ReleaseType",    "DeviceName",     "ProductType",
                                                "HWModelStr",     "SerialNumber"};
/// What the system knows, key by key.
constexpr std::array<Answer (*)(), kKeys.size()> kSystem{machineId,
                                                         [] { return release("VERSION_ID"); },
                                                         [] { return release("BUILD_ID"); },
                                                         [] { return osRelease("RELEASE_TYPE"); },
                                                         [] { return trimmed(kernel().nodename); },
                                                         productType,
                                                         hardwareModel,
                                                         serialNumber};

}  // namespace

std::span<const std::string_view> deviceInformationKeys() {
    return kKeys;
}

std::optional<std::string> deviceInformation(std::string_view key) {
    const std::string file = rooted(kDeviceFile);
    if (Answer stored = textUnder(key, readConfiguration(file), file)) return stored;
    const auto known = std::ranges::find(kKeys, key);
    return known != kKeys.end() ? kSystem.at(static_cast<std::size_t>(known - kKeys.begin()))()
                                : std::nullopt;
}

}  // namespace quorvane::platform
