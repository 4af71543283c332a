#include "client/EventCall.h"

#include "framework/Keys.h"
#include "platform/bus/BusText.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace quorvane::client {

namespace {

static_assert(std::endian::native == std::endian::little, "numbers are copied as they lie in memory");

/// What the bus allows.
constexpr unsigned kMaximumContainers = 128;
constexpr std::size_t kMaximumArray = 64u << 20;

constexpr std::size_t kKeptBytes = 64u << 10;
constexpr std::int64_t kSecond = 1'000'000;

constexpr std::size_t kFlagsAt = 2;
constexpr std::size_t kBodyLengthAt = 4;
constexpr std::size_t kSerialAt = 8;

constexpr std::uint8_t kNoReplyExpected = 1;

/// Writes values in D-Bus's form, each aligned from the message's start; the first failure stays.
class Writer {
  public:
    explicit Writer(std::vector<std::uint8_t>& buffer, std::size_t at = 0) : _buffer(buffer), _at(at) {}

    int failure() const { return _failure; }
    std::size_t size() const { return _at; }

    void bytes(const void* bytes, std::size_t size) {
        std::uint8_t* to = room(size);
        if (size > 0) std::memcpy(to, bytes, size);
    }

    template <typename Number>
    void number(Number number) {
        align(sizeof number);
        bytes(&number, sizeof number);
    }

    void align(std::size_t to) {
        const std::size_t padding = (to - _at % to) % to;
        std::memset(room(padding), 0, padding);
    }

    /// A text that is known to be good.
    void constant(std::string_view text) {
        number(static_cast<std::uint32_t>(text.size()));
        bytes(text.data(), text.size());
        number(std::uint8_t{0});
    }

    void signature(std::string_view types) {
        number(static_cast<std::uint8_t>(types.size()));
        bytes(types.data(), types.size());
        number(std::uint8_t{0});
    }

    void text(std::string_view text) {
        if (!platform::isBusText(text)) fail(-EINVAL);
        constant(text);
    }

    /// An array whose elements, aligned so, the function writes.
    template <typename Function>
    void array(std::size_t alignment, const Function& elements) {
        number(std::uint32_t{0});
        const std::size_t lengthAt = _at - sizeof(std::uint32_t);
        align(alignment);
        const std::size_t start = _at;
        elements();
        if (_at - start > kMaximumArray) return fail(-E2BIG);
        const auto length = static_cast<std::uint32_t>(_at - start);
        std::memcpy(_buffer.data() + lengthAt, &length, sizeof length);
    }

    template <typename Function>
    void entry(std::string_view key, std::string_view type, const Function& value) {
        align(8);
        constant(key);
        signature(type);
        value();
    }

    /// In as many containers as stand open already.
    void dictionary(const Dictionary& dictionary, unsigned open) {
        if (!enter(open + 3)) return;
        array(8, [&] {
            for (const auto& [key, value] : dictionary) {
                align(8);
                text(key);
                variant(value, open + 3);
            }
        });
    }

  private:
    std::uint8_t* room(std::size_t size) {
        if (_buffer.size() - _at < size) _buffer.resize(std::max(2 * _buffer.size(), _at + size));
        std::uint8_t* at = _buffer.data() + _at;
        _at += size;
        return at;
    }

    void fail(int error) {
        if (_failure == 0) _failure = error;
    }

    bool enter(unsigned open) {
        if (open > kMaximumContainers) fail(-E2BIG);
        return _failure == 0;
    }

    void array(const Array& array, unsigned open) {
        if (!enter(open + 2)) return;
        this->array(1, [&] {
            for (const Value& element : array) variant(element, open + 2);
        });
    }

    void date(Date date) {
        std::int64_t seconds = date.microseconds / kSecond;
        std::int64_t rest = date.microseconds % kSecond;
        if (rest < 0) {
            seconds -= 1;
            rest += kSecond;
        }
        align(8);
        number(seconds);
        number(static_cast<std::uint32_t>(rest));
    }

    void variant(const Value& value, unsigned open) {
        value.visit([&](const auto& held) {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string>) {
                signature("s");
                text(held);
            } else if constexpr (std::is_same_v<Held, bool>) {
                signature("b");
                number(std::uint32_t{held});
            } else if constexpr (std::is_same_v<Held, std::int64_t>) {
                signature("x");
                number(held);
            } else if constexpr (std::is_same_v<Held, std::uint64_t>) {
                signature("t");
                number(held);
            } else if constexpr (std::is_same_v<Held, double>) {
                signature("d");
                number(held);
            } else if constexpr (std::is_same_v<Held, Date>) {
                signature("(xu)");
                if (enter(open + 1)) date(held);
            } else if constexpr (std::is_same_v<Held, Data>) {
                signature("ay");
                if (enter(open + 1)) array(1, [&] { bytes(held.data(), held.size()); });
            } else if constexpr (std::is_same_v<Held, Array>) {
                signature("av");
                array(held, open);
            } else {
                signature("a{sv}");
                dictionary(held, open);
            }
        });
    }

    std::vector<std::uint8_t>& _buffer;
    std::size_t _at;
    int _failure = 0;
};

/// The header of every such call, up to the body.
const std::vector<std::uint8_t>& header() {
    static const std::vector<std::uint8_t> header = [] {
        std::vector<std::uint8_t> bytes;
        Writer writer(bytes);
        // Little-endian, a call, its flags, version 1; then the body's length and the serial.
        constexpr std::uint8_t fixed[] = {'l', 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
        writer.bytes(fixed, sizeof fixed);
        const auto field = [&writer](std::uint8_t code, const char* type) {
            writer.align(8);
            writer.number(code);
            writer.signature(type);
        };
        writer.array(8, [&] {
            field(1, "o");
            writer.constant(kQuorvaneObjectPath);
            field(2, "s");
            writer.constant(kClientSessionInterface);
            field(3, "s");
            writer.constant("SendMessageWithDictionary");
            field(8, "g");
            writer.signature("a{sv}");
        });
        writer.align(8);
        bytes.resize(writer.size());
        return bytes;
    }();
    return header;
}

}  // namespace

int EventCall::write(const EventView& event, std::uint32_t serial) {
    const std::size_t headerBytes = header().size();
    if (_buffer.size() < headerBytes) _buffer = header();
    Writer writer(_buffer, headerBytes);
    writer.array(8, [&] {
        const auto numberEntry = [&writer](std::string_view key, std::string_view type, auto number) {
            writer.entry(key, type, [&] { writer.number(number); });
        };
        numberEntry(kQuorvaneMessageParametersCategory, "q", event.category);
        numberEntry(kQuorvaneMessageParametersType, "q", event.type);
        if (event.payload != nullptr)
            writer.entry(kQuorvaneMessageParametersPayload, "a{sv}",
                         [&] { writer.dictionary(*event.payload, 3); });
        if (event.flag != 0) numberEntry(kQuorvaneMessageParametersFlag, "u", event.flag);
    });
    if (writer.failure() < 0) return writer.failure();
    _size = writer.size();
    const auto bodyLength = static_cast<std::uint32_t>(_size - headerBytes);
    _buffer[kFlagsAt] = serial == kUnanswered ? kNoReplyExpected : 0;
    std::memcpy(_buffer.data() + kBodyLengthAt, &bodyLength, sizeof bodyLength);
    std::memcpy(_buffer.data() + kSerialAt, &serial, sizeof serial);
    return 0;
}

void EventCall::trim() {
    if (_buffer.size() <= kKeptBytes) return;
    _buffer.resize(kKeptBytes);
    _buffer.shrink_to_fit();
}

}  // namespace quorvane::client
