#include "platform/formats/BinaryPropertyList.h"

#include "platform/formats/PropertyListDate.h"
#include "platform/formats/ValueLimits.h"
#include "platform/value/Bytes.h"
#include "platform/value/Text.h"

#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane::platform {

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

using Bytes = std::span<const std::uint8_t>;

std::uint64_t bigEndian(Bytes bytes) {
    std::uint64_t number = 0;
    for (const std::uint8_t byte : bytes) number = (number << 8) | byte;
    return number;
}

/// An object is a marker byte and its contents. The marker's upper half is the type, its lower half the size;
/// 0xf there says that an integer object with the size comes first. A container's contents are the numbers of
/// its objects in the offset table, whose place is in the trailer at the list's end. Functions return nothing
/// after a failure.
class Reader {
  public:
    explicit Reader(Bytes bytes) : _bytes(bytes) {}

    Result<Value> read() {
        auto root = readTrailer() ? value(_root) : std::nullopt;
        if (root) return std::move(*root);
        return failure(std::string("the property list ") + (_failure != nullptr ? _failure : "is damaged"));
    }

  private:
    struct Object {
        unsigned type = 0;
        unsigned lowerHalf = 0;
        /// Of what comes after the marker.
        std::uint64_t offset = 0;
    };

    std::nullopt_t fail(const char* failure) {
        _failure = failure;
        return std::nullopt;
    }

    /// The part of the bytes before the trailer; nothing when they do not reach that far.
    std::optional<Bytes> part(std::uint64_t offset, std::uint64_t size) const {
        const std::size_t held = _bytes.size() - kTrailerSize;
        if (offset > held || size > held - offset) return std::nullopt;
        return _bytes.subspan(offset, size);
    }

    bool readTrailer() {
        if (!textOf(_bytes).starts_with("bplist0") || _bytes.size() < kHeaderSize + kTrailerSize)
            return false;
        const Bytes trailer = _bytes.last(kTrailerSize);
        _offsetSize = trailer[6];
        _referenceSize = trailer[7];
        _objects = bigEndian(trailer.subspan(8, 8));
        _root = bigEndian(trailer.subspan(16, 8));
        _table = bigEndian(trailer.subspan(24, 8));
        // The first bound keeps the product within 64 bits.
        return _offsetSize >= 1 && _offsetSize <= 8 && _referenceSize >= 1 && _referenceSize <= 8 &&
               _objects <= _bytes.size() && part(_table, _objects * _offsetSize);
    }

    std::optional<Object> object(std::uint64_t number) const {
        if (number >= _objects) return std::nullopt;
        const std::uint64_t offset = bigEndian(_bytes.subspan(_table + number * _offsetSize, _offsetSize));
        const auto marker = part(offset, 1);
        if (!marker) return std::nullopt;
        const unsigned byte = marker->front();
        return Object{byte >> 4, byte & 0xf, offset + 1};
    }

    std::optional<Value> value(std::uint64_t number) {
        const auto at = object(number);
        if (!at) return std::nullopt;
        switch (at->type) {
            case 0x0:
                return boolean(*at);
            case 0x1:
                return integer(*at);
            case 0x2:
                return real(*at);
            case 0x3:
                return date(*at);
            case 0x4:
                return data(*at);
            case 0x5:
            case 0x6: {
                auto held = text(*at);
                return held ? std::optional<Value>(std::move(*held)) : std::nullopt;
            }
            case 0xa:
            case 0xd:
                return container(*at);
            default:
                return fail("holds an object that is no value");
        }
    }

    std::optional<Value> boolean(const Object& at) {
        if (at.lowerHalf == 8 || at.lowerHalf == 9) return Value(at.lowerHalf == 9);
        return fail("holds an object that is no value");
    }

    /// Up to four bytes are unsigned, eight are signed; sixteen are for what is above those.
    std::optional<Value> integer(const Object& at) const {
        if (at.lowerHalf > 4) return std::nullopt;
        const auto bytes = part(at.offset, std::uint64_t{1} << at.lowerHalf);
        if (!bytes) return std::nullopt;
        const bool wide = bytes->size() == 16;
        const std::uint64_t number = bigEndian(wide ? bytes->last(8) : *bytes);
        const std::uint64_t above = wide ? bigEndian(bytes->first(8)) : 0;
        const auto asSigned = static_cast<std::int64_t>(number);
        const std::uint64_t signExtension = asSigned < 0 ? ~std::uint64_t{0} : 0;
        if (!wide || above == signExtension) return Value(asSigned);
        return above == 0 ? std::optional<Value>(number) : std::nullopt;
    }

    std::optional<Value> real(const Object& at) const {
        const auto number = floating(at);
        return number ? std::optional<Value>(*number) : std::nullopt;
    }

    std::optional<double> floating(const Object& at) const {
        if (at.lowerHalf != 2 && at.lowerHalf != 3) return std::nullopt;
        const auto bytes = part(at.offset, std::uint64_t{1} << at.lowerHalf);
        if (!bytes) return std::nullopt;
        const std::uint64_t bits = bigEndian(*bytes);
        if (at.lowerHalf == 2) return std::bit_cast<float>(static_cast<std::uint32_t>(bits));
        return std::bit_cast<double>(bits);
    }

    std::optional<Value> date(const Object& at) {
        const auto seconds = floating(at);
        if (!seconds) return std::nullopt;
        constexpr double farthest = 9e12;  // so that microseconds fit in 64 bits
        if (!(std::abs(*seconds) < farthest)) return fail("holds a date out of range");
        return Value(Date{kPropertyListEpoch * 1'000'000 + std::llround(*seconds * 1e6)});
    }

    std::optional<Value> data(const Object& at) {
        const auto bytes = contents(at, 1);
        return bytes ? std::optional<Value>(Data(bytes->begin(), bytes->end())) : std::nullopt;
    }

    std::optional<std::string> text(const Object& at) {
        const bool wide = at.type == 0x6;
        const auto bytes = contents(at, wide ? 2 : 1);
        if (!bytes) return std::nullopt;
        auto read = wide ? utf8FromUtf16(units(*bytes)) : std::string(textOf(*bytes));
        if (!read || !isUtf8(*read)) return fail("holds a text that is not Unicode");
        return read;
    }

    static std::u16string units(Bytes bytes) {
        std::u16string result;
        result.reserve(bytes.size() / 2);
        for (std::size_t i = 0; i < bytes.size(); i += 2)
            result += static_cast<char16_t>(bigEndian(bytes.subspan(i, 2)));
        return result;
    }

    std::optional<Value> container(const Object& at) {
        if (_depth == kMaximumDepth) return fail(kTooDeep);
        ++_depth;
        auto result = at.type == 0xa ? array(at) : dictionary(at);
        --_depth;
        return result;
    }

    std::optional<Value> array(const Object& at) {
        const auto references = contents(at, _referenceSize);
        if (!references) return std::nullopt;
        const std::size_t size = references->size() / _referenceSize;
        if (!count(size)) return tooLarge();
        Array elements;
        elements.reserve(size);
        for (std::size_t i = 0; i < size; ++i) {
            auto element = value(reference(*references, i));
            if (!element) return std::nullopt;
            elements.push_back(std::move(*element));
        }
        return Value(std::move(elements));
    }

    /// First come all keys, then all values.
    std::optional<Value> dictionary(const Object& at) {
        const auto references = contents(at, 2 * _referenceSize);
        if (!references) return std::nullopt;
        const std::size_t size = references->size() / _referenceSize / 2;
        if (!count(size)) return tooLarge();
        std::vector<Dictionary::Entry> entries;
        entries.reserve(size);
        for (std::size_t i = 0; i < size; ++i) {
            auto name = key(reference(*references, i));
            auto held = name ? value(reference(*references, size + i)) : std::nullopt;
            if (!held) return std::nullopt;
            entries.push_back({std::move(*name), std::move(*held)});
        }
        return Value(Dictionary::fromEntries(std::move(entries)));
    }

    /// Counts a container's values before there is room made for them.
    bool count(std::size_t values) {
        _values += values;
        return _values <= kMaximumValues;
    }

    std::optional<std::string> key(std::uint64_t number) {
        const auto at = object(number);
        if (!at) return std::nullopt;
        if (at->type != 0x5 && at->type != 0x6) return fail("has a key that is no text");
        return text(*at);
    }

    std::uint64_t reference(Bytes references, std::size_t index) const {
        return bigEndian(references.subspan(index * _referenceSize, _referenceSize));
    }

    /// What follows the marker and the size, which counts units of so many bytes.
    std::optional<Bytes> contents(const Object& at, std::uint64_t unit) {
        std::uint64_t start = at.offset;
        const auto size = readSize(at.lowerHalf, start);
        if (!size || *size > _bytes.size()) return std::nullopt;
        const auto bytes = part(start, *size * unit);
        if (!bytes) return std::nullopt;
        _written += bytes->size();
        return _written <= kMaximumBytes ? bytes : tooLarge();
    }

    /// Moves start past an integer object that holds the size.
    std::optional<std::uint64_t> readSize(unsigned lowerHalf, std::uint64_t& start) const {
        if (lowerHalf != 0xf) return lowerHalf;
        const auto marker = part(start, 1);
        if (!marker || marker->front() >> 4 != 0x1 || (marker->front() & 0xf) > 3) return std::nullopt;
        const std::uint64_t width = std::uint64_t{1} << (marker->front() & 0xfu);
        const auto size = part(start + 1, width);
        if (!size) return std::nullopt;
        start += 1 + width;
        return bigEndian(*size);
    }

    std::nullopt_t tooLarge() { return fail(kTooLarge); }

    Bytes _bytes;
    std::uint64_t _offsetSize = 0;
    std::uint64_t _referenceSize = 0;
    std::uint64_t _objects = 0;
    std::uint64_t _root = 0;
    std::uint64_t _table = 0;
    unsigned _depth = 0;
    std::uint64_t _values = 0;
    std::uint64_t _written = 0;
    const char* _failure = nullptr;
};

}  // namespace

Result<Value> parseBinaryPropertyList(std::span<const std::uint8_t> bytes) {
    return Reader(bytes).read();
}

}  // namespace quorvane::platform
