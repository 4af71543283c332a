#include "tools/storebag/KeyRules.h"

#include "platform/formats/Json.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace quorvane::tools {

namespace {

bool isUrl(const std::string& text) {
    return text.starts_with("https://") || text.starts_with("http://");
}

bool isAddress(const std::string& text) {
    in_addr address{};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

/// Of any other word a daemon makes that the key is kept, which nobody who names an action means.
bool isFilterAction(const std::string& text) {
    return text == "remove" || text == "sha256";
}

bool isWithin(const Value& value, std::int64_t least, std::int64_t most) {
    return value.isInteger() && value.real() >= static_cast<double>(least) &&
           value.real() <= static_cast<double>(most);
}

bool isNumeric(Form form) {
    return form == Form::Port || form == Form::Integer || form == Form::Count || form == Form::EventNumber ||
           form == Form::Share;
}

template <typename Held>
bool allAre(const Value& value, const Held* (Value::*read)() const) {
    const Array* array = value.array();
    return array != nullptr && std::all_of(array->begin(), array->end(), [&](const Value& element) {
               return (element.*read)() != nullptr;
           });
}

}  // namespace

bool hasForm(const Value& value, Form form) {
    const std::string* text = value.string();
    switch (form) {
        case Form::Text:
            return text != nullptr;
        case Form::Texts:
            return allAre<std::string>(value, &Value::string);
        case Form::Url:
            return text != nullptr && isUrl(*text);
        case Form::Address:
            return text != nullptr && isAddress(*text);
        case Form::Port:
            return isWithin(value, 1, std::numeric_limits<std::uint16_t>::max());
        case Form::Integer:
            return value.isInteger() || value.kind() == Value::Kind::Boolean;
        case Form::Count:
            return isWithin(value, 0, std::numeric_limits<std::int32_t>::max());
        case Form::EventNumber:
            return isWithin(value, -1, std::numeric_limits<std::uint16_t>::max());
        case Form::Share:
            return value.isNumber() && value.real() >= 0 && value.real() <= 1;
        case Form::Entries:
            return allAre<Dictionary>(value, &Value::dictionary);
        case Form::FilterAction:
            return text != nullptr && isFilterAction(*text);
    }
    return false;
}

bool isNumberAsText(const Value& value, Form form) {
    const std::string* text = value.string();
    if (text == nullptr || !isNumeric(form)) return false;
    const auto number = platform::parseJson(*text);
    return number && number->isNumber();
}

std::string_view nameOf(Form form) {
    switch (form) {
        case Form::Text:
            return "a text";
        case Form::Texts:
            return "an array of texts";
        case Form::Url:
            return "an https or http URL";
        case Form::Address:
            return "an IPv4 address";
        case Form::Port:
            return "a number from 1 to 65535";
        case Form::Integer:
            return "a number without a fraction";
        case Form::Count:
            return "a number from 0 to 2147483647, without a fraction,";
        case Form::EventNumber:
            return "a number from 0 to 65535, or -1 for all,";
        case Form::Share:
            return "a share of sessions, from 0 to 1,";
        case Form::Entries:
            return "an array of dictionaries";
        case Form::FilterAction:
            return "\"remove\" or \"sha256\"";
    }
    return {};
}

}  // namespace quorvane::tools
