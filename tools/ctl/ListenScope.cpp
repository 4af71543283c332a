#include "tools/ctl/ListenScope.h"

#include "platform/value/Text.h"
#include "tools/common/Failure.h"
#include "tools/ctl/Inspection.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

/// A daemon that does not tell of sessions lets them be listened to all the same.
std::vector<Dictionary> sessionsOf(const DaemonOptions& options) {
    try {
        return inspect(options).sessions;
    } catch (const tools::Failure&) {
        return {};
    }
}

bool haveEqualNames(const Dictionary& one, const Dictionary& other) {
    return std::ranges::all_of(
        std::initializer_list<std::string_view>{"clientName", "serviceName"}, [&](auto key) {
            return platform::equalsIgnoringCase(one.text(key).value_or(""), other.text(key).value_or(""));
        });
}

/// The session that took the place that aggregates at this level before the own one came; null when none did.
const Dictionary* sessionInTheWay(const std::vector<Dictionary>& sessions, const Dictionary& own) {
    const auto found = std::ranges::find_if(sessions, [&](const Dictionary& other) {
        return !isOwn(other) && other.boolean("started") && other.integer("level") == own.integer("level") &&
               other.integer("user") == own.integer("user") && haveEqualNames(other, own);
    });
    return found != sessions.end() ? &*found : nullptr;
}

std::string namesOf(const SessionOptions& options) {
    return fmt::format("client {}, service {}", options.clientName.value_or("without a name"),
                       options.serviceName.value_or("without a name"));
}

std::string scopeAt(std::int64_t level) {
    if (level < 0)
        return "what comes: this session's own events alone, for a level below 0 is above no other";
    return fmt::format(
        "what comes: this session's own events, and those of the same names below level {0}\n"
        "what does not: those at level {0} or above it, of other names or of none, and of users who share no "
        "groups with this one",
        level);
}

}  // namespace

std::string scopeOfListening(const SessionOptions& options) {
    const std::vector<Dictionary> sessions = sessionsOf(options);
    const auto own = std::ranges::find_if(sessions, isOwn);
    if (own == sessions.end()) return fmt::format("listening to {}", namesOf(options));
    const std::int64_t level = own->integer("level");
    std::string text =
        fmt::format("listening at level {} to {}\n{}", level, namesOf(options), scopeAt(level));
    if (const Dictionary* first = sessionInTheWay(sessions, *own))
        text += fmt::format("\nnothing comes from below yet: session {} of process {} was first at level {}",
                            first->unsignedInteger("sessionID"), first->integer("process"), level);
    return text;
}

}  // namespace quorvane::ctl
