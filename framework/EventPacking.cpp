#include "framework/EventPacking.h"

#include "platform/bus/BusText.h"
#include "platform/value/Bytes.h"
#include "platform/value/Nesting.h"

#include <bit>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace quorvane {

using platform::containersOf;
using platform::kMaximumContainers;

namespace {

static_assert(std::endian::native == std::endian::little, "numbers are copied as they lie in memory");

// An event's parts, behind which its payload lies.
constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kAgeAt = 12;
constexpr std::size_t kHeadBytes = 21;

constexpr std::size_t kMaximumValues = 1'000'000;

/// Smallest entry of a dictionary: an empty key and a boolean.
constexpr std::size_t kSmallestEntry = 4 + 1 + 1;
constexpr std::size_t kSmallestElement = 1 + 1;

// Measuring.

/// Adds up what values take; false when they cannot be sent.
class Measure {
  public:
    /// What it holds stands in so many containers.
    bool dictionary(const Dictionary& dictionary, unsigned open) {
        bytes += 4;
        for (const auto& [key, value] : dictionary)
            if (!text(key) || !this->value(value, open)) return false;
        return true;
    }

    std::size_t bytes = 0;

  private:
    bool text(const std::string& text) {
        bytes += 4 + text.size();
        return platform::isBusText(text);
    }

    bool array(const Array& array, unsigned open) {
        bytes += 4;
        for (const Value& element : array)
            if (!value(element, open)) return false;
        return true;
    }

    bool value(const Value& value, unsigned open) {
        bytes += 1;
        open += containersOf(value.kind());
        if (open > kMaximumContainers) return false;
        return value.visit([&](const auto& held) {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string>) {
                return text(held);
            } else if constexpr (std::is_same_v<Held, Dictionary>) {
                return dictionary(held, open);
            } else if constexpr (std::is_same_v<Held, Array>) {
                return array(held, open);
            } else if constexpr (std::is_same_v<Held, Data>) {
                bytes += 4 + held.size();
                return true;
            } else if constexpr (std::is_same_v<Held, Date>) {
                bytes += sizeof held.microseconds;
                return true;
            } else {
                bytes += sizeof held;
                return true;
            }
        });
    }
};

// Writing.

class Writer {
  public:
    explicit Writer(std::uint8_t* at) : _at(at) {}

    template <typename Number>
    void number(Number number) {
        std::memcpy(_at, &number, sizeof number);
        _at += sizeof number;
    }

    void dictionary(const Dictionary& dictionary) {
        number(static_cast<std::uint32_t>(dictionary.size()));
        for (const auto& [key, value] : dictionary) {
            bytes(key.data(), key.size());
            this->value(value);
        }
    }

  private:
    void bytes(const void* bytes, std::size_t size) {
        number(static_cast<std::uint32_t>(size));
        if (size > 0) std::memcpy(_at, bytes, size);
        _at += size;
    }

    void value(const Value& value) {
        number(static_cast<std::uint8_t>(value.kind()));
        value.visit([this](const auto& held) {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string> || std::is_same_v<Held, Data>) {
                bytes(held.data(), held.size());
            } else if constexpr (std::is_same_v<Held, Dictionary>) {
                dictionary(held);
            } else if constexpr (std::is_same_v<Held, Array>) {
                number(static_cast<std::uint32_t>(held.size()));
                for (const Value& element : held) this->value(element);
            } else if constexpr (std::is_same_v<Held, Date>) {
                number(held.microseconds);
            } else {
                number(held);
            }
        });
    }

    std::uint8_t* _at;
};

// Reading.

/// Reads one event's values. After the first that does not fit, nothing more is read and everything is 0.
class Reader {
  public:
    explicit Reader(std::span<const std::uint8_t> bytes) : _rest(bytes) {}

    /// Why the bytes are no event; null while they may be one.
    const char* failure() const { return _failure; }

    void event(PackedEvent& event) {
        event.category = number<std::uint16_t>();
        event.type = number<std::uint16_t>();
        event.flag = number<std::uint32_t>();
        const auto age = number<std::uint64_t>();
        if (age > static_cast<std::uint64_t>(PackedEventReader::kMaximumAge.count()))
            fail("it is older than a year");
        event.age = std::chrono::microseconds(age);
        event.payload.reset();
        if (boolean()) event.payload = dictionary(containersOf(Value::Kind::Dictionary));
        if (!_rest.empty()) fail("it is longer than its values");
    }

  private:
    void fail(const char* why) {
        if (_failure == nullptr) _failure = why;
        _rest = {};
    }

    std::span<const std::uint8_t> take(std::size_t size) {
        if (size > _rest.size()) {
            fail("its values go past its end");
            return {};
        }
        const auto taken = _rest.first(size);
        _rest = _rest.subspan(size);
        return taken;
    }

    template <typename Number>
    Number number() {
        Number number{};
        const auto bytes = take(sizeof number);
        if (!bytes.empty()) std::memcpy(&number, bytes.data(), sizeof number);
        return number;
    }

    bool boolean() {
        const auto byte = number<std::uint8_t>();
        if (byte > 1) fail("a boolean is neither 0 nor 1");
        return byte == 1;
    }

    std::string_view text() {
        const auto text = platform::textOf(take(number<std::uint32_t>()));
        if (!platform::isBusText(text)) fail("a text is not UTF-8 or holds a NUL");
        return text;
    }

    Data data() {
        const auto bytes = take(number<std::uint32_t>());
        return {bytes.begin(), bytes.end()};
    }

    /// How many elements follow, each of so many bytes at least: memory is taken for no more.
    std::uint32_t count(std::size_t smallest) {
        const auto count = number<std::uint32_t>();
        _values += count;
        if (count > _rest.size() / smallest)
            fail("its values go past its end");
        else if (_values > kMaximumValues)
            fail("it has more than a million values");
        return _failure == nullptr ? count : 0;
    }

    /// What a value of the kind holds stands in so many containers.
    unsigned enter(unsigned open, Value::Kind kind) {
        open += containersOf(kind);
        if (open > kMaximumContainers) fail("its values are nested too deeply");
        return open;
    }

    Dictionary dictionary(unsigned open) {
        std::vector<Dictionary::Entry> entries;
        const std::uint32_t size = count(kSmallestEntry);
        entries.reserve(size);
        while (entries.size() < size && _failure == nullptr) {
            const std::string_view key = text();
            entries.push_back({std::string(key), value(open)});
        }
        return Dictionary::fromEntries(std::move(entries));
    }

    Array array(unsigned open) {
        Array array;
        const std::uint32_t size = count(kSmallestElement);
        array.reserve(size);
        while (array.size() < size && _failure == nullptr) array.push_back(value(open));
        return array;
    }

    Value value(unsigned open) {
        const auto kind = static_cast<Value::Kind>(number<std::uint8_t>());
        open = enter(open, kind);
        switch (kind) {
            case Value::Kind::String:
                return text();
            case Value::Kind::Boolean:
                return boolean();
            case Value::Kind::Signed:
                return number<std::int64_t>();
            case Value::Kind::Unsigned:
                return number<std::uint64_t>();
            case Value::Kind::Real:
                return number<double>();
            case Value::Kind::Date:
                return Date{number<std::int64_t>()};
            case Value::Kind::Data:
                return data();
            case Value::Kind::Array:
                return array(open);
            case Value::Kind::Dictionary:
                return dictionary(open);
        }
        fail("a value is of an unknown type");
        return {};
    }

    std::span<const std::uint8_t> _rest;
    std::size_t _values = 0;
    const char* _failure = nullptr;
};

}  // namespace

std::optional<std::size_t> packedSize(const Dictionary* payload) {
    Measure measure;
    if (payload != nullptr && !measure.dictionary(*payload, containersOf(Value::Kind::Dictionary)))
        return std::nullopt;
    return kHeadBytes + measure.bytes;
}

void packEvent(std::uint8_t* to, std::size_t size, std::uint16_t category, std::uint16_t type,
               std::uint32_t flag, std::uint64_t age, const Dictionary* payload) {
    Writer writer(to);
    writer.number(static_cast<std::uint32_t>(size - kLengthBytes));
    writer.number(category);
    writer.number(type);
    writer.number(flag);
    writer.number(age);
    writer.number(static_cast<std::uint8_t>(payload != nullptr));
    if (payload != nullptr) writer.dictionary(*payload);
}

void replaceTimesByAges(std::span<std::uint8_t> events, std::uint64_t now) {
    while (!events.empty()) {
        std::uint32_t length = 0;
        std::uint64_t time = 0;
        std::memcpy(&length, events.data(), sizeof length);
        std::memcpy(&time, events.data() + kAgeAt, sizeof time);
        const std::uint64_t age = now > time ? now - time : 0;
        std::memcpy(events.data() + kAgeAt, &age, sizeof age);
        events = events.subspan(kLengthBytes + length);
    }
}

PackedEventReader::Step PackedEventReader::next() {
    if (_rest.empty()) return Step::End;
    std::uint32_t length = 0;
    if (_rest.size() >= sizeof length) std::memcpy(&length, _rest.data(), sizeof length);
    if (_rest.size() < sizeof length || length > _rest.size() - sizeof length) {
        _rest = {};
        return fail("it goes past the end");
    }
    const auto bytes = _rest.subspan(sizeof length, length);
    _rest = _rest.subspan(sizeof length + length);
    Reader reader(bytes);
    reader.event(_event);
    if (reader.failure() != nullptr) return fail(reader.failure());
    return Step::Event;
}

PackedEventReader::Step PackedEventReader::fail(const char* why) {
    _failure = why;
    return Step::Wrong;
}

}  // namespace quorvane
