#include "tools/common/Json.h"

#include "platform/crypto/Crypto.h"
#include "platform/formats/Json.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <cmath>
#include <ctime>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::tools {

namespace {

struct RefuseNull : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, RefuseNull> {
    bool Null() { return false; }
};

std::string placeOf(std::size_t offset, std::string_view text) {
    const std::string_view before = text.substr(0, offset);
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    return fmt::format("line {}, column {}", line, before.size() - (before.rfind('\n') + 1) + 1);
}

/// Reads the text once more, now only for its first fault.
std::string faultOf(std::string_view text) {
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Reader reader;
    RefuseNull handler;
    const auto result =
        reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(stream, handler);
    if (!result.IsError()) return "too many values, or nested too deeply";
    if (result.Code() == rapidjson::kParseErrorTermination)
        return placeOf(result.Offset(), text) + ": null has no value";
    return fmt::format("{}: {}", placeOf(result.Offset(), text), rapidjson::GetParseError_En(result.Code()));
}

std::string timeText(Date date) {
    constexpr std::int64_t kPerSecond = 1'000'000;
    const std::int64_t part = ((date.microseconds % kPerSecond) + kPerSecond) % kPerSecond;
    const std::time_t seconds = (date.microseconds - part) / kPerSecond;
    const std::string whole = fmt::format("{:%Y-%m-%dT%H:%M:%S}", fmt::gmtime(seconds));
    return part == 0 ? whole + "Z" : fmt::format("{}.{:06}Z", whole, part);
}

Value jsonForm(const Value& value) {
    if (const Date* date = value.date()) return timeText(*date);
    if (const Data* data = value.data()) return platform::base64Encode(*data);
    if (value.kind() == Value::Kind::Real && !std::isfinite(value.real()))
        return fmt::format("{}", value.real());
    if (const Array* array = value.array()) {
        Array elements;
        for (const Value& element : *array) elements.push_back(jsonForm(element));
        return elements;
    }
    if (const Dictionary* dictionary = value.dictionary()) {
        Dictionary entries;
        for (const auto& [key, held] : *dictionary) entries.set(key, jsonForm(held));
        return entries;
    }
    return value;
}

}  // namespace

Value parseJsonOrFail(std::string_view text, std::string_view name, int status) {
    auto value = platform::parseJson(text);
    if (!value) throw Failure(fmt::format("{}: {}", name, faultOf(text)), status);
    return *std::move(value);
}

std::string compactJsonOf(const Value& value) {
    const auto json = platform::compactJson(jsonForm(value));
    if (!json) throw Failure("a text in it is not UTF-8");
    return {json->begin(), json->end()};
}

std::string prettyJsonOf(const Value& value) {
    auto json = platform::prettyJson(jsonForm(value));
    if (!json) throw Failure("a text in it is not UTF-8");
    return *std::move(json);
}

}  // namespace quorvane::tools
