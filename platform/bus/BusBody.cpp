#include "platform/bus/BusBody.h"

#include "platform/bus/BusText.h"

#include <systemd/sd-bus-protocol.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane::platform {

namespace {

/// Dictionaries in each other; few events have more than two.
constexpr unsigned kMaximumDepth = 8;

/// Functions return false for what is not plain; what they have read by then is of no use.
class BodyReader {
  public:
    explicit BodyReader(std::span<const std::uint8_t> body) : _bytes(body) {}

    bool dictionary(Dictionary& out);
    bool atEnd() const { return _at == _bytes.size(); }

  private:
    bool entry(Dictionary::Entry& out);
    bool variant(Value& out);
    bool basic(char type, Value& out);
    bool textValue(Value& out);
    bool flag(Value& out);
    template <typename Number>
    bool numberValue(Value& out);

    bool take(std::string_view bytes);
    bool text(std::string_view& out);
    template <typename Number>
    bool number(Number& out);
    bool align(std::size_t to);
    std::size_t left() const { return _bytes.size() - _at; }
    std::string_view ahead(std::size_t size) const {
        return {reinterpret_cast<const char*>(_bytes.data()) + _at, size};
    }

    std::span<const std::uint8_t> _bytes;  ///< Begins at a multiple of eight in its message.
    std::size_t _at = 0;
    unsigned _depth = 0;
};

bool BodyReader::dictionary(Dictionary& out) {
    std::uint32_t size = 0;
    if (++_depth > kMaximumDepth || !number(size) || !align(8) || size > left()) return false;
    const std::size_t end = _at + size;
    std::vector<Dictionary::Entry> entries;
    if (size > 0) entries.reserve(8);
    while (_at < end)
        if (!entry(entries.emplace_back())) return false;
    --_depth;
    out = Dictionary::fromEntries(std::move(entries));
    return _at == end;
}

bool BodyReader::entry(Dictionary::Entry& out) {
    std::string_view key;
    if (!align(8) || !text(key)) return false;
    out.key = key;
    return variant(out.value);
}

bool BodyReader::variant(Value& out) {
    using namespace std::string_view_literals;
    if (take("\5a{sv}\0"sv)) {
        Dictionary held;
        if (!dictionary(held)) return false;
        out = Value(std::move(held));
        return true;
    }
    if (left() < 3 || _bytes[_at] != 1 || _bytes[_at + 2] != 0) return false;
    const auto type = static_cast<char>(_bytes[_at + 1]);
    _at += 3;
    return basic(type, out);
}

bool BodyReader::basic(char type, Value& out) {
    switch (type) {
        case SD_BUS_TYPE_STRING:
            return textValue(out);
        case SD_BUS_TYPE_BOOLEAN:
            return flag(out);
        case SD_BUS_TYPE_BYTE:
            return numberValue<std::uint8_t>(out);
        case SD_BUS_TYPE_INT16:
            return numberValue<std::int16_t>(out);
        case SD_BUS_TYPE_UINT16:
            return numberValue<std::uint16_t>(out);
        case SD_BUS_TYPE_INT32:
            return numberValue<std::int32_t>(out);
        case SD_BUS_TYPE_UINT32:
            return numberValue<std::uint32_t>(out);
        case SD_BUS_TYPE_INT64:
            return numberValue<std::int64_t>(out);
        case SD_BUS_TYPE_UINT64:
            return numberValue<std::uint64_t>(out);
        case SD_BUS_TYPE_DOUBLE:
            return numberValue<double>(out);
        default:
            return false;
    }
}

bool BodyReader::textValue(Value& out) {
    std::string_view read;
    if (!text(read)) return false;
    out = Value(read);
    return true;
}

bool BodyReader::flag(Value& out) {
    std::uint32_t read = 0;
    if (!number(read) || read > 1) return false;
    out = Value(read == 1);
    return true;
}

template <typename Number>
bool BodyReader::numberValue(Value& out) {
    Number read{};
    if (!number(read)) return false;
    out = Value(read);
    return true;
}

bool BodyReader::take(std::string_view bytes) {
    if (left() < bytes.size() || ahead(bytes.size()) != bytes) return false;
    _at += bytes.size();
    return true;
}

bool BodyReader::text(std::string_view& out) {
    std::uint32_t size = 0;
    if (!number(size) || size >= left()) return false;
    out = ahead(size);
    _at += size + std::size_t{1};
    return isBusText(out) && out.data()[out.size()] == 0;
}

template <typename Number>
bool BodyReader::number(Number& out) {
    if (!align(sizeof out) || left() < sizeof out) return false;
    std::memcpy(&out, _bytes.data() + _at, sizeof out);
    _at += sizeof out;
    return true;
}

/// What fills up is zero.
bool BodyReader::align(std::size_t to) {
    for (; _at % to != 0; ++_at)
        if (left() == 0 || _bytes[_at] != 0) return false;
    return true;
}

}  // namespace

std::optional<Dictionary> readPlainDictionary(std::span<const std::uint8_t> body) try {
    BodyReader reader(body);
    Dictionary read;
    if (!reader.dictionary(read) || !reader.atEnd()) return std::nullopt;
    return read;
} catch (const std::bad_alloc&) {
    return std::nullopt;
}

}  // namespace quorvane::platform
