#include "platform/bus/BusValue.h"

#include "platform/bus/BusText.h"
#include "platform/value/Nesting.h"

#include <cerrno>
#include <type_traits>

namespace quorvane::platform {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

int appendText(sd_bus_message* message, const std::string& text) {
    if (!isBusText(text)) return -EINVAL;
    return ::sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, text.c_str());
}

template <typename Function>
int appendContainer(sd_bus_message* message, char type, const char* contents, Function&& function) {
    if (const int result = ::sd_bus_message_open_container(message, type, contents); result < 0)
        return result;
    if (const int result = function(); result < 0) return result;
    return ::sd_bus_message_close_container(message);
}

template <typename Elements, typename Function>
int appendEach(const Elements& elements, Function&& function) {
    for (const auto& element : elements)
        if (const int result = function(element); result < 0) return result;
    return 0;
}

// What they hold stands in so many containers.
int appendDictionary(sd_bus_message* message, const Dictionary& dictionary, unsigned open);
int appendArray(sd_bus_message* message, const Array& array, unsigned open);

int appendDate(sd_bus_message* message, Date date) {
    std::int64_t seconds = date.microseconds / kMicrosecondsPerSecond;
    std::int64_t rest = date.microseconds % kMicrosecondsPerSecond;
    if (rest < 0) {
        seconds -= 1;
        rest += kMicrosecondsPerSecond;
    }
    return ::sd_bus_message_append(message, "(xu)", seconds, static_cast<std::uint32_t>(rest));
}

/// What the value travels as.
const char* signatureOf(Value::Kind kind) {
    switch (kind) {
        case Value::Kind::String:
            return "s";
        case Value::Kind::Boolean:
            return "b";
        case Value::Kind::Signed:
            return "x";
        case Value::Kind::Unsigned:
            return "t";
        case Value::Kind::Real:
            return "d";
        case Value::Kind::Date:
            return "(xu)";
        case Value::Kind::Data:
            return "ay";
        case Value::Kind::Array:
            return "av";
        case Value::Kind::Dictionary:
            return "a{sv}";
    }
    return "";
}

int appendHeld(sd_bus_message* message, const Value& value, unsigned open) {
    open += containersOf(value.kind());
    if (open > kMaximumContainers) return -E2BIG;
    return value.visit([&](const auto& held) -> int {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::string>) {
            return appendText(message, held);
        } else if constexpr (std::is_same_v<Held, bool>) {
            const int flag = held ? 1 : 0;
            return ::sd_bus_message_append_basic(message, SD_BUS_TYPE_BOOLEAN, &flag);
        } else if constexpr (std::is_arithmetic_v<Held>) {
            return ::sd_bus_message_append_basic(message, *signatureOf(value.kind()), &held);
        } else if constexpr (std::is_same_v<Held, Date>) {
            return appendDate(message, held);
        } else if constexpr (std::is_same_v<Held, Data>) {
            return ::sd_bus_message_append_array(message, SD_BUS_TYPE_BYTE, held.data(), held.size());
        } else if constexpr (std::is_same_v<Held, Array>) {
            return appendArray(message, held, open);
        } else {
            return appendDictionary(message, held, open);
        }
    });
}

int appendVariant(sd_bus_message* message, const Value& value, unsigned open) {
    return appendContainer(message, SD_BUS_TYPE_VARIANT, signatureOf(value.kind()),
                           [&] { return appendHeld(message, value, open); });
}

int appendDictionary(sd_bus_message* message, const Dictionary& dictionary, unsigned open) {
    const auto appendEntry = [&](const Dictionary::Entry& entry) {
        return appendContainer(message, SD_BUS_TYPE_DICT_ENTRY, "sv", [&] {
            const int result = appendText(message, entry.key);
            return result < 0 ? result : appendVariant(message, entry.value, open);
        });
    };
    return appendContainer(message, SD_BUS_TYPE_ARRAY, "{sv}",
                           [&] { return appendEach(dictionary, appendEntry); });
}

int appendArray(sd_bus_message* message, const Array& array, unsigned open) {
    return appendContainer(message, SD_BUS_TYPE_ARRAY, "v", [&] {
        return appendEach(array, [&](const Value& element) { return appendVariant(message, element, open); });
    });
}

}  // namespace

int appendDictionary(sd_bus_message* message, const Dictionary& dictionary) {
    return appendDictionary(message, dictionary, containersOf(Value::Kind::Dictionary));
}

int appendOptionalDictionary(sd_bus_message* message, const Dictionary* dictionary) {
    return appendContainer(message, SD_BUS_TYPE_ARRAY, "a{sv}", [&] {
        return dictionary != nullptr ? appendDictionary(message, *dictionary) : 0;
    });
}

int appendArray(sd_bus_message* message, const Array& array) {
    return appendArray(message, array, containersOf(Value::Kind::Array));
}

int appendStrings(sd_bus_message* message, const std::vector<std::string>& strings) {
    return appendContainer(message, SD_BUS_TYPE_ARRAY, "s", [&] {
        return appendEach(strings, [&](const std::string& text) { return appendText(message, text); });
    });
}

int appendOptionalStrings(sd_bus_message* message, const std::vector<std::string>* strings) {
    return appendContainer(message, SD_BUS_TYPE_ARRAY, "as",
                           [&] { return strings != nullptr ? appendStrings(message, *strings) : 0; });
}

int appendOptionalString(sd_bus_message* message, const std::string* text) {
    return appendContainer(message, SD_BUS_TYPE_ARRAY, "s",
                           [&] { return text != nullptr ? appendText(message, *text) : 0; });
}

}  // namespace quorvane::platform
