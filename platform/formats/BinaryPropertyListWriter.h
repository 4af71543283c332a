#pragma once

#include "platform/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace quorvane::platform {

/// Writes a binary property list object by object, in time that grows with their number: equal objects are
/// not looked for.
class BinaryPropertyListWriter {
  public:
    /// An object already written.
    enum class Reference : std::uint32_t {};

    BinaryPropertyListWriter();

    Reference add(bool flag);
    Reference add(std::int64_t number);
    Reference add(std::uint64_t number);
    Reference add(double number);
    Reference add(Date date);
    Reference add(const Data& data);
    /// Nothing when the text is not UTF-8.
    std::optional<Reference> add(std::string_view text);
    /// With all that is in it; nothing when a text in it is not UTF-8.
    std::optional<Reference> addValue(const Value& value);
    Reference addUid(std::uint32_t uid);
    Reference addArray(std::span<const Reference> elements);
    /// The keys, which are texts, and their values, in the same order.
    Reference addDictionary(std::span<const Reference> keys, std::span<const Reference> values);

    /// The whole list with the object as its root. To be called once.
    Data finish(Reference root);

  private:
    std::optional<Reference> addElements(const Array& array);
    std::optional<Reference> addEntries(const Dictionary& dictionary);
    Reference startObject();
    void putDouble(unsigned type, double number);
    void putInteger(std::uint64_t number);
    void putMarker(unsigned type, std::size_t size);
    void putBigEndian(std::uint64_t number, unsigned bytes);
    void putReferences(std::span<const Reference> references);

    Data _bytes;
    std::vector<std::uint64_t> _offsets;
};

}  // namespace quorvane::platform
