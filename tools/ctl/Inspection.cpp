#include "tools/ctl/Inspection.h"

#include "framework/Keys.h"
#include "platform/base/Owned.h"
#include "platform/base/Root.h"
#include "platform/bus/BusMessage.h"
#include "platform/bus/BusValue.h"
#include "platform/value/Url.h"
#include "tools/common/Failure.h"
#include "tools/common/Json.h"
#include "tools/ctl/OpenSession.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

using Bus = platform::Owned<sd_bus, ::sd_bus_close_unref>;

constexpr std::uint64_t kMicrosecondsPerSecond = 1'000'000;

[[noreturn]] void fail(const std::string& what, int error) {
    throw tools::Failure(fmt::format("{}: {}", what, std::strerror(-error)), kNotReached);
}

Bus connectTo(const DaemonOptions& options) {
    const std::string path = options.socket.empty() ? platform::rooted(kQuorvaneSocketPath) : options.socket;
    sd_bus* raw = nullptr;
    int result = ::sd_bus_new(&raw);
    Bus bus(raw);
    const std::string address = "unix:path=" + platform::pathPercentEncoded(path);
    if (result >= 0) result = ::sd_bus_set_address(raw, address.c_str());
    if (result >= 0)
        result = ::sd_bus_set_method_call_timeout(
            raw, options.timeoutSeconds == 0 ? UINT64_MAX : options.timeoutSeconds * kMicrosecondsPerSecond);
    if (result >= 0) result = ::sd_bus_start(raw);
    if (result < 0) fail("cannot connect to " + path, result);
    return bus;
}

platform::BusMessage call(sd_bus* bus, const char* member) {
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const int result = ::sd_bus_call_method(bus, nullptr, kQuorvaneObjectPath, kInspectionInterface, member,
                                            &error, &reply, "");
    const std::string told = error.message != nullptr ? error.message : "";
    ::sd_bus_error_free(&error);
    if (result == -EOPNOTSUPP || result == -EBADR)
        throw tools::Failure("the daemon is too old to tell: " + told);
    if (result < 0) fail(fmt::format("the daemon does not answer {}", member), result);
    return platform::BusMessage(reply);
}

std::vector<Dictionary> dictionariesOf(sd_bus_message* reply) {
    std::vector<Dictionary> read;
    int result = ::sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "a{sv}");
    while (result >= 0 && ::sd_bus_message_at_end(reply, 0) == 0)
        result = platform::readDictionary(reply, read.emplace_back());
    if (result < 0) fail("the daemon's answer cannot be read", result);
    return read;
}

}  // namespace

std::string dateUnder(const Dictionary& facts, std::string_view key) {
    const Value* date = facts.find(key);
    const std::string text = date != nullptr ? tools::compactJsonOf(*date) : "";
    return text.size() > 2 ? text.substr(1, text.size() - 2) : "never";
}

bool isOwn(const Dictionary& session) {
    return session.integer("process") == ::getpid();
}

Inspection inspect(const DaemonOptions& options) {
    const Bus bus = connectTo(options);
    Inspection seen;
    const platform::BusMessage statistics = call(bus.get(), "GetStatistics");
    const int result = platform::readDictionary(statistics.get(), seen.statistics);
    if (result < 0) fail("the daemon's answer cannot be read", result);
    seen.sessions = dictionariesOf(call(bus.get(), "GetSessions").get());
    seen.storebags = dictionariesOf(call(bus.get(), "GetStorebags").get());
    return seen;
}

}  // namespace quorvane::ctl
