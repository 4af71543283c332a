#include "platform/formats/BinaryPropertyListWriter.h"

#include "platform/formats/PropertyListDate.h"
#include "platform/value/Text.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <type_traits>
#include <utility>

namespace quorvane::platform {

namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr unsigned kReferenceBytes = 4;

// A marker's upper half.
constexpr unsigned kInteger = 0x1;
constexpr unsigned kReal = 0x2;
constexpr unsigned kDate = 0x3;
constexpr unsigned kData = 0x4;
constexpr unsigned kAscii = 0x5;
constexpr unsigned kUtf16 = 0x6;
constexpr unsigned kUid = 0x8;
constexpr unsigned kArray = 0xa;
constexpr unsigned kDictionary = 0xd;

/// How many bytes hold the number: 1, 2, 4 or 8.
unsigned bytesFor(std::uint64_t number) {
    if (number <= 0xff) return 1;
    if (number <= 0xffff) return 2;
    return number <= 0xffff'ffff ? 4 : 8;
}

}  // namespace

BinaryPropertyListWriter::BinaryPropertyListWriter() : _bytes(kMagic.begin(), kMagic.end()) {}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::add(bool flag) {
    const Reference reference = startObject();
    _bytes.push_back(flag ? 0x09 : 0x08);
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::add(std::int64_t number) {
    const Reference reference = startObject();
    putInteger(static_cast<std::uint64_t>(number));
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::add(std::uint64_t number) {
    const Reference reference = startObject();
    if (number <= std::numeric_limits<std::int64_t>::max()) {
        putInteger(number);
    } else {
        // Integers of 8 bytes are signed.
        putMarker(kInteger, 4);
        putBigEndian(0, 8);
        putBigEndian(number, 8);
    }
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::add(double number) {
    const Reference reference = startObject();
    putDouble(kReal, number);
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::add(Date date) {
    const Reference reference = startObject();
    putDouble(kDate, propertyListTime(date));
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::add(const Data& data) {
    const Reference reference = startObject();
    putMarker(kData, data.size());
    _bytes.insert(_bytes.end(), data.begin(), data.end());
    return reference;
}

std::optional<BinaryPropertyListWriter::Reference> BinaryPropertyListWriter::add(std::string_view text) {
    const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return c >= 0; });
    const auto wide = ascii ? std::u16string() : utf16FromUtf8(text);
    if (!wide) return std::nullopt;
    const Reference reference = startObject();
    putMarker(ascii ? kAscii : kUtf16, ascii ? text.size() : wide->size());
    if (ascii) _bytes.insert(_bytes.end(), text.begin(), text.end());
    for (const char16_t unit : *wide) putBigEndian(unit, 2);
    return reference;
}

std::optional<BinaryPropertyListWriter::Reference> BinaryPropertyListWriter::addValue(const Value& value) {
    return value.visit([this](const auto& held) -> std::optional<Reference> {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, Array>)
            return addElements(held);
        else if constexpr (std::is_same_v<Held, Dictionary>)
            return addEntries(held);
        else if constexpr (std::is_same_v<Held, std::string>)
            return add(std::string_view(held));
        else
            return add(held);
    });
}

std::optional<BinaryPropertyListWriter::Reference> BinaryPropertyListWriter::addElements(const Array& array) {
    std::vector<Reference> elements;
    elements.reserve(array.size());
    for (const Value& element : array) {
        const auto reference = addValue(element);
        if (!reference) return std::nullopt;
        elements.push_back(*reference);
    }
    return addArray(elements);
}

std::optional<BinaryPropertyListWriter::Reference> BinaryPropertyListWriter::addEntries(
    const Dictionary& dictionary) {
    std::vector<Reference> keys;
    std::vector<Reference> values;
    keys.reserve(dictionary.size());
    values.reserve(dictionary.size());
    for (const auto& [key, value] : dictionary) {
        const auto keyReference = add(std::string_view(key));
        const auto reference = keyReference ? addValue(value) : std::nullopt;
        if (!reference) return std::nullopt;
        keys.push_back(*keyReference);
        values.push_back(*reference);
    }
    return addDictionary(keys, values);
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::addUid(std::uint32_t uid) {
    const Reference reference = startObject();
    const unsigned bytes = bytesFor(uid);
    putMarker(kUid, bytes - 1);
    putBigEndian(uid, bytes);
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::addArray(std::span<const Reference> elements) {
    const Reference reference = startObject();
    putMarker(kArray, elements.size());
    putReferences(elements);
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::addDictionary(
    std::span<const Reference> keys, std::span<const Reference> values) {
    const Reference reference = startObject();
    putMarker(kDictionary, keys.size());
    putReferences(keys);
    putReferences(values);
    return reference;
}

Data BinaryPropertyListWriter::finish(Reference root) {
    const std::uint64_t table = _bytes.size();
    const unsigned offsetBytes = bytesFor(table);
    for (const std::uint64_t offset : _offsets) putBigEndian(offset, offsetBytes);
    _bytes.insert(_bytes.end(), 6, 0);
    _bytes.push_back(static_cast<std::uint8_t>(offsetBytes));
    _bytes.push_back(kReferenceBytes);
    putBigEndian(_offsets.size(), 8);
    putBigEndian(static_cast<std::uint32_t>(root), 8);
    putBigEndian(table, 8);
    return std::move(_bytes);
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::startObject() {
    _offsets.push_back(_bytes.size());
    return Reference{static_cast<std::uint32_t>(_offsets.size() - 1)};
}

void BinaryPropertyListWriter::putDouble(unsigned type, double number) {
    putMarker(type, 3);
    putBigEndian(std::bit_cast<std::uint64_t>(number), 8);
}

/// A negative number takes 8 bytes.
void BinaryPropertyListWriter::putInteger(std::uint64_t number) {
    const unsigned bytes = bytesFor(number);
    putMarker(kInteger, static_cast<unsigned>(std::countr_zero(bytes)));
    putBigEndian(number, bytes);
}

/// The size follows on its own when half a byte cannot hold it.
void BinaryPropertyListWriter::putMarker(unsigned type, std::size_t size) {
    _bytes.push_back(static_cast<std::uint8_t>(type << 4 | std::min<std::size_t>(size, 0xf)));
    if (size >= 0xf) putInteger(size);
}

void BinaryPropertyListWriter::putBigEndian(std::uint64_t number, unsigned bytes) {
    for (unsigned left = bytes; left > 0; --left)
        _bytes.push_back(static_cast<std::uint8_t>(number >> (8 * (left - 1))));
}

void BinaryPropertyListWriter::putReferences(std::span<const Reference> references) {
    for (const Reference reference : references)
        putBigEndian(static_cast<std::uint32_t>(reference), kReferenceBytes);
}

}  // namespace quorvane::platform
