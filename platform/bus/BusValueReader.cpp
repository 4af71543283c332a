#include "platform/bus/BusValue.h"

#include "platform/value/Nesting.h"

#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

namespace quorvane::platform {

namespace {

constexpr std::size_t kMaximumValues = 1'000'000;
constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

/// The basic types that keys bore when they were last met. A key nearly always bears the same one again, and
/// asking sd-bus for it takes nearly as long as entering the variant does.
class TypesByKey {
  public:
    /// A signature, empty while none is known; keys may share it.
    std::array<char, 2>& of(std::string_view key) {
        std::uint32_t hash = 2'166'136'261;  // FNV-1a
        for (const char c : key.substr(0, kHashedCharacters))
            hash = (hash ^ static_cast<unsigned char>(c)) * 16'777'619;
        return _types[(hash ^ (hash >> 16)) % _types.size()];
    }

  private:
    static constexpr std::size_t kHashedCharacters = 24;
    std::array<std::array<char, 2>, 512> _types{};
};

/// Reads values by their signature, which the caller knows or has read once from the variant around them:
/// asking sd-bus at every step would copy it every time. A signature handed on is one complete type and ends
/// with a NUL. Like sd-bus, functions return 0 at the end of a container and more for an element.
class Reader {
  public:
    explicit Reader(sd_bus_message* message) : _message(message) {}

    /// The dictionary's entries are of the type "{sT}".
    int dictionary(const char* entryType, Dictionary& out);
    int array(const char* elementType, Array& out);

  private:
    /// A container entered for as long as its elements are read.
    template <typename Function>
    int inside(char type, const char* contents, Function&& function);
    int leave(int result);
    /// Calls a function that reads what stands in so many more.
    template <typename Function>
    int nested(unsigned containers, Function&& function);

    int value(const char* type, Value& out);
    int variant(Value& out);
    int variant(Value& out, std::array<char, 2>& basicType);
    int variantUnder(std::string_view key, Value& out);
    int container(const char* type, Value& out);
    int arrayOf(const char* elementType, Value& out);
    int dictionaryOf(const char* entryType, Value& out);
    int date(Value& out);
    int data(Value& out);
    int text(char type, Value& out);
    template <typename Read, typename Held = Read>
    int number(char type, Value& out);

    sd_bus_message* _message;
    unsigned _open = 0;  ///< Containers around the next value once it is written.
    std::size_t _values = 0;
};

template <typename Function>
int Reader::inside(char type, const char* contents, Function&& function) {
    if (const int entered = ::sd_bus_message_enter_container(_message, type, contents); entered <= 0)
        return entered;
    return leave(function());
}

/// Leaves the container that has been read with this result.
int Reader::leave(int result) {
    if (result < 0) return result;
    const int left = ::sd_bus_message_exit_container(_message);
    return left < 0 ? left : 1;
}

template <typename Function>
int Reader::nested(unsigned containers, Function&& function) {
    if (_open + containers > kMaximumContainers) return -E2BIG;
    _open += containers;
    const int result = function();
    _open -= containers;
    return result;
}

int Reader::dictionary(const char* entryType, Dictionary& out) {
    const std::string_view braced = entryType;
    const std::string contents(braced.substr(1, braced.size() - 2));
    const char* valueType = contents.c_str() + 1;
    std::vector<Dictionary::Entry> entries;
    const auto readEntries = [&] {
        int more = 0;
        do {
            more = inside(SD_BUS_TYPE_DICT_ENTRY, contents.c_str(), [&] {
                const char* key = nullptr;
                if (const int read = ::sd_bus_message_read_basic(_message, SD_BUS_TYPE_STRING, &key);
                    read <= 0)
                    return read;
                if (entries.empty()) entries.reserve(8);
                auto& [held, value] = entries.emplace_back();
                held = key;
                return *valueType == SD_BUS_TYPE_VARIANT ? variantUnder(held, value)
                                                         : this->value(valueType, value);
            });
        } while (more > 0);
        return more;
    };
    const int result = nested(containersOf(Value::Kind::Dictionary),
                              [&] { return inside(SD_BUS_TYPE_ARRAY, entryType, readEntries); });
    if (result >= 0) out = Dictionary::fromEntries(std::move(entries));
    return result;
}

int Reader::array(const char* elementType, Array& out) {
    out.clear();
    const auto readElements = [&] {
        const bool inVariants = *elementType == SD_BUS_TYPE_VARIANT;
        int more = 0;
        while ((more = ::sd_bus_message_at_end(_message, 0)) == 0) {
            Value& element = out.emplace_back();
            const int read = inVariants ? variant(element) : value(elementType, element);
            if (read < 0) return read;
        }
        return more;
    };
    return nested(containersOf(Value::Kind::Array),
                  [&] { return inside(SD_BUS_TYPE_ARRAY, elementType, readElements); });
}

int Reader::value(const char* type, Value& out) {
    if (*type == SD_BUS_TYPE_VARIANT)  // In another, which is left out when it is written.
        return nested(1, [&] { return variant(out); });
    if (++_values > kMaximumValues) return -E2BIG;
    switch (*type) {
        case SD_BUS_TYPE_STRING:
        case SD_BUS_TYPE_OBJECT_PATH:
        case SD_BUS_TYPE_SIGNATURE:
            return text(*type, out);
        case SD_BUS_TYPE_BOOLEAN:
            return number<int, bool>(*type, out);
        case SD_BUS_TYPE_BYTE:
            return number<std::uint8_t>(*type, out);
        case SD_BUS_TYPE_INT16:
            return number<std::int16_t>(*type, out);
        case SD_BUS_TYPE_UINT16:
            return number<std::uint16_t>(*type, out);
        case SD_BUS_TYPE_INT32:
            return number<std::int32_t>(*type, out);
        case SD_BUS_TYPE_UINT32:
            return number<std::uint32_t>(*type, out);
        case SD_BUS_TYPE_INT64:
            return number<std::int64_t>(*type, out);
        case SD_BUS_TYPE_UINT64:
            return number<std::uint64_t>(*type, out);
        case SD_BUS_TYPE_DOUBLE:
            return number<double>(*type, out);
        default:
            return container(type, out);
    }
}

int Reader::container(const char* type, Value& out) {
    const std::string_view signature = type;
    if (signature == "ay") return nested(containersOf(Value::Kind::Data), [&] { return data(out); });
    if (signature == "(xu)") return nested(containersOf(Value::Kind::Date), [&] { return date(out); });
    if (signature.starts_with("a{s")) return dictionaryOf(type + 1, out);
    return signature.starts_with('a') ? arrayOf(type + 1, out) : -ENXIO;
}

int Reader::variant(Value& out) {
    std::array<char, 2> ignored{};
    return variant(out, ignored);
}

int Reader::variant(Value& out, std::array<char, 2>& basicType) {
    const char* contents = nullptr;
    if (const int result = ::sd_bus_message_peek_type(_message, nullptr, &contents); result <= 0)
        return result < 0 ? result : -ENXIO;
    basicType[0] = contents[1] == '\0' ? *contents : '\0';
    return inside(SD_BUS_TYPE_VARIANT, contents, [&] { return value(contents, out); });
}

int Reader::variantUnder(std::string_view key, Value& out) {
    thread_local TypesByKey types;
    std::array<char, 2>& expected = types.of(key);
    if (expected[0] != '\0') {
        const int entered = ::sd_bus_message_enter_container(_message, SD_BUS_TYPE_VARIANT, expected.data());
        if (entered > 0) return leave(value(expected.data(), out));
        // It holds another type, and sd-bus stands where it stood.
        if (entered != -ENXIO) return entered;
    }
    return variant(out, expected);
}

int Reader::arrayOf(const char* elementType, Value& out) {
    Array elements;
    const int result = array(elementType, elements);
    out = Value(std::move(elements));
    return result;
}

int Reader::dictionaryOf(const char* entryType, Value& out) {
    Dictionary read;
    const int result = dictionary(entryType, read);
    out = Value(std::move(read));
    return result;
}

int Reader::date(Value& out) {
    return inside(SD_BUS_TYPE_STRUCT, "xu", [&] {
        std::int64_t seconds = 0;
        std::uint32_t microseconds = 0;
        if (const int result = ::sd_bus_message_read(_message, "xu", &seconds, &microseconds); result < 0)
            return result;
        Date read;
        if (__builtin_mul_overflow(seconds, kMicrosecondsPerSecond, &read.microseconds) ||
            __builtin_add_overflow(read.microseconds, microseconds, &read.microseconds))
            return -EBADMSG;
        out = Value(read);
        return 1;
    });
}

int Reader::data(Value& out) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    if (const int result = ::sd_bus_message_read_array(_message, SD_BUS_TYPE_BYTE, &bytes, &size); result < 0)
        return result;
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    out = Value(Data(first, first + size));
    return 1;
}

int Reader::text(char type, Value& out) {
    const char* read = nullptr;
    const int result = ::sd_bus_message_read_basic(_message, type, &read);
    if (result > 0) out = Value(read);
    return result;
}

template <typename Read, typename Held>
int Reader::number(char type, Value& out) {
    Read read{};
    const int result = ::sd_bus_message_read_basic(_message, type, &read);
    out = Value(static_cast<Held>(read));
    return result;
}

/// Reads "aT" with no element or one: function reads a T.
template <typename T, typename Function>
int readOptional(sd_bus_message* message, const char* type, std::optional<T>& out, Function&& function) {
    out.reset();
    if (const int result = ::sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, type); result < 0)
        return result;
    if (::sd_bus_message_at_end(message, 0) == 0)
        if (const int result = function(out.emplace()); result < 0) return result;
    if (::sd_bus_message_at_end(message, 0) == 0) return -EBADMSG;
    return ::sd_bus_message_exit_container(message);
}

}  // namespace

int readDictionary(sd_bus_message* message, Dictionary& out) {
    return Reader(message).dictionary("{sv}", out);
}

int readOptionalDictionary(sd_bus_message* message, std::optional<Dictionary>& out) {
    return readOptional(message, "a{sv}", out,
                        [&](Dictionary& held) { return readDictionary(message, held); });
}

int readArray(sd_bus_message* message, Array& out) {
    char type = 0;
    const char* contents = nullptr;
    if (const int result = ::sd_bus_message_peek_type(message, &type, &contents); result < 0) return result;
    if (type != SD_BUS_TYPE_ARRAY || contents == nullptr || *contents == SD_BUS_TYPE_DICT_ENTRY_BEGIN)
        return -ENXIO;
    // sd-bus keeps what it tells only until it is asked again.
    const std::string elementType = contents;
    return Reader(message).array(elementType.c_str(), out);
}

int readStrings(sd_bus_message* message, std::vector<std::string>& out) {
    out.clear();
    if (const int result = ::sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s"); result < 0)
        return result;
    const char* text = nullptr;
    int result = 0;
    while ((result = ::sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text)) > 0)
        out.emplace_back(text);
    return result < 0 ? result : ::sd_bus_message_exit_container(message);
}

int readOptionalStrings(sd_bus_message* message, std::optional<std::vector<std::string>>& out) {
    return readOptional(message, "as", out,
                        [&](std::vector<std::string>& held) { return readStrings(message, held); });
}

int readOptionalString(sd_bus_message* message, std::optional<std::string>& out) {
    return readOptional(message, "s", out, [&](std::string& held) {
        const char* text = nullptr;
        const int result = ::sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
        if (result > 0) held = text;
        return result;
    });
}

}  // namespace quorvane::platform
