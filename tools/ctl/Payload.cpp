#include "tools/ctl/Payload.h"

#include "platform/formats/Json.h"
#include "tools/common/Failure.h"
#include "tools/common/Json.h"

#include <utility>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

constexpr const char* kDigits = "0123456789";

/// Digits alone that are no number of 64 bits would lose some as one; they are rather an identifier.
bool isLongNumber(const Value& number, std::string_view text) {
    return number.kind() == Value::Kind::Real && text.find_first_not_of("-0123456789") == text.npos;
}

Value typed(std::string_view text) {
    if (text == "true" || text == "false") return text == "true";
    const bool likeNumber = text.find_first_of(kDigits) <= 1 && text.find_last_of(kDigits) == text.size() - 1;
    const auto number = likeNumber ? platform::parseJson(text) : std::nullopt;
    return number && number->isNumber() && !isLongNumber(*number, text) ? *number : Value(text);
}

Dictionary parsedPayload(const std::string& json) {
    Value value = tools::parseJsonOrFail(json, "--payload", tools::kUsage);
    if (value.dictionary() == nullptr)
        throw tools::Failure("--payload: a JSON object is expected", tools::kUsage);
    return std::move(*value.dictionary());
}

}  // namespace

Event eventOf(const EventOptions& options, std::uint32_t flag) {
    Event event{.category = options.category, .type = options.type, .flag = flag};
    if (options.payload) event.payload = parsedPayload(*options.payload);
    if (!options.entries.empty() && !event.payload) event.payload.emplace();
    for (const std::string_view entry : options.entries) {
        const auto equals = entry.find('=');
        if (equals == entry.npos || equals == 0)
            throw tools::Failure(fmt::format("{}: KEY=VALUE is expected", entry), tools::kUsage);
        event.payload->set(entry.substr(0, equals), typed(entry.substr(equals + 1)));
    }
    return event;
}

}  // namespace quorvane::ctl
