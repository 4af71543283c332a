#include "platform/PropertyListBounds.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace quorvane::platform {

namespace {

constexpr std::size_t kMaximumDepth = 128;
constexpr std::uint64_t kMaximumValues = 1'000'000;
constexpr std::uint64_t kMaximumBytes = std::uint64_t{64} << 20;

constexpr const char* kTooDeep = "nested deeper than 128 levels";
constexpr const char* kTooLarge = "more than a million values or 64 MiB";

using Failure = std::optional<std::string>;
using Bytes = std::span<const std::uint8_t>;

/// Walks over the tags of an XML list.
class XmlBounds {
  public:
    explicit XmlBounds(std::string_view text) : _rest(text) {}

    Failure check() {
        while (skipPast("<")) {
            if (skipWhole("!--", "-->") || skipWhole("![CDATA[", "]]>") || skipWhole("?", "?>") ||
                skipDocumentType())
                continue;
            const bool closing = _rest.starts_with('/');
            if (closing) _rest.remove_prefix(1);
            if (Failure failure = count(closing)) return failure;
        }
        return std::nullopt;
    }

  private:
    bool skipPast(std::string_view mark) {
        const std::size_t at = _rest.find(mark);
        _rest.remove_prefix(at == std::string_view::npos ? _rest.size() : at + mark.size());
        return at != std::string_view::npos;
    }

    bool skipWhole(std::string_view start, std::string_view end) {
        if (!_rest.starts_with(start)) return false;
        _rest.remove_prefix(start.size());
        skipPast(end);
        return true;
    }

    bool skipDocumentType() {
        if (!_rest.starts_with("!DOCTYPE")) return false;
        _rest.remove_prefix(std::min(_rest.find_first_of("[>"), _rest.size()));
        skipPast(_rest.starts_with('[') ? "]>" : ">");
        return true;
    }

    Failure count(bool closing) {
        const std::string_view name = _rest.substr(0, _rest.find_first_of(" \t\r\n<>/"));
        const bool nests = name == "array" || name == "dict";
        const std::size_t end = std::min(_rest.find_first_of("<>"), _rest.size());
        const bool empty = end > 0 && _rest[end - 1] == '/';
        _rest.remove_prefix(end);
        if (closing) {
            if (nests && _depth > 0) --_depth;
            return std::nullopt;
        }
        if (++_values > kMaximumValues) return kTooLarge;
        if (nests && !empty && ++_depth > kMaximumDepth) return kTooDeep;
        return std::nullopt;
    }

    std::string_view _rest;
    std::size_t _depth = 0;
    std::uint64_t _values = 0;
};

/// The object table of a binary list: one marker byte per object, whose upper half is its type and whose
/// lower half its size or, for 0xf, says that an integer object with the size follows; then the contents, for
/// containers the numbers of the objects in it. 32 bytes at the end say where the table of offsets is.
class BinaryBounds {
  public:
    explicit BinaryBounds(Bytes bytes) : _bytes(bytes) {}

    Failure check() {
        if (!readTrailer()) return "truncated";
        _measured.assign(_objects, {});
        if (Failure failure = measure()) return failure;
        const Measure& whole = _measured[_root];
        if (whole.values > kMaximumValues || whole.bytes > kMaximumBytes) return kTooLarge;
        return std::nullopt;
    }

  private:
    enum class State : std::uint8_t { Unknown, Open, Known };

    /// What an object amounts to when it is written out with all that it refers to.
    struct Measure {
        State state = State::Unknown;
        std::uint64_t values = 1;
        std::uint64_t bytes = 0;
    };

    /// One object on the way from the root: what it refers to and how much of that is measured.
    struct Step {
        std::uint64_t object = 0;
        Bytes references;
    };

    static constexpr std::size_t kHeaderSize = 8;
    static constexpr std::size_t kTrailerSize = 32;

    static std::uint64_t bigEndian(Bytes bytes) {
        std::uint64_t number = 0;
        for (const std::uint8_t byte : bytes) number = (number << 8) | byte;
        return number;
    }

    /// The given part of the bytes in front of the trailer; nothing when they do not reach that far.
    std::optional<Bytes> part(std::uint64_t offset, std::uint64_t size) const {
        const std::size_t held = _bytes.size() - kTrailerSize;
        if (offset > held || size > held - offset) return std::nullopt;
        return _bytes.subspan(offset, size);
    }

    bool readTrailer() {
        if (_bytes.size() < kHeaderSize + kTrailerSize) return false;
        const Bytes trailer = _bytes.last(kTrailerSize);
        _offsetSize = trailer[6];
        _referenceSize = trailer[7];
        _objects = bigEndian(trailer.subspan(8, 8));
        _root = bigEndian(trailer.subspan(16, 8));
        _table = bigEndian(trailer.subspan(24, 8));
        // Every object has a byte of its own, so a larger number is a lie that must cost no memory.
        return _offsetSize >= 1 && _offsetSize <= 8 && _referenceSize >= 1 && _referenceSize <= 8 &&
               _objects <= _bytes.size() && _root < _objects && part(_table, _objects * _offsetSize);
    }

    Failure measure() {
        if (Failure failure = open(_root)) return failure;
        while (!_path.empty()) {
            Step& step = _path.back();
            if (step.references.empty()) {
                close();
                continue;
            }
            const std::uint64_t object = bigEndian(step.references.first(_referenceSize));
            if (object >= _objects) return "a reference to an object that is not there";
            if (_measured[object].state == State::Open) return "refers to itself";
            if (_measured[object].state == State::Unknown) {
                if (Failure failure = open(object)) return failure;
                continue;
            }
            step.references = step.references.subspan(_referenceSize);
            add(_measured[object], _measured[step.object]);
        }
        return std::nullopt;
    }

    /// Reads the object and makes it the end of the path.
    Failure open(std::uint64_t object) {
        if (_path.size() == kMaximumDepth + 1) return kTooDeep;
        const auto references = read(object);
        if (!references) return "truncated";
        _measured[object].state = State::Open;
        _path.push_back({object, *references});
        return std::nullopt;
    }

    void close() {
        _measured[_path.back().object].state = State::Known;
        _path.pop_back();
    }

    static void add(const Measure& part, Measure& whole) {
        // Beyond the bounds the sums stand still, so that they cannot overflow.
        whole.values = std::min(whole.values + part.values, kMaximumValues + 1);
        whole.bytes = std::min(whole.bytes + part.bytes, kMaximumBytes + 1);
    }

    /// What the object refers to; its own bytes are counted.
    std::optional<Bytes> read(std::uint64_t object) {
        const std::uint64_t offset = bigEndian(_bytes.subspan(_table + object * _offsetSize, _offsetSize));
        const auto marker = part(offset, 1);
        if (!marker) return std::nullopt;
        const unsigned type = marker->front() >> 4;
        const bool isContainer = type >= 0xa && type <= 0xd;
        const bool isText = type >= 4 && type <= 7;
        if (!isContainer && !isText) return Bytes();
        std::uint64_t start = offset + 1;
        const auto size = readSize(marker->front() & 0xf, start);
        if (!size || *size > _bytes.size()) return std::nullopt;
        if (isContainer) return part(start, *size * _referenceSize * (type == 0xd ? 2 : 1));
        _measured[object].bytes = *size * (type == 6 ? 2 : 1);
        return part(start, _measured[object].bytes) ? std::optional(Bytes()) : std::nullopt;
    }

    /// The size that the lower half of a marker tells; start moves behind a size that stands on its own.
    std::optional<std::uint64_t> readSize(unsigned lowerHalf, std::uint64_t& start) const {
        if (lowerHalf != 0xf) return lowerHalf;
        const auto marker = part(start, 1);
        if (!marker || marker->front() >> 4 != 1 || (marker->front() & 0xf) > 3) return std::nullopt;
        const std::uint64_t width = std::uint64_t{1} << (marker->front() & 0xf);
        const auto size = part(start + 1, width);
        if (!size) return std::nullopt;
        start += 1 + width;
        return bigEndian(*size);
    }

    Bytes _bytes;
    std::uint64_t _offsetSize = 0;
    std::uint64_t _referenceSize = 0;
    std::uint64_t _objects = 0;
    std::uint64_t _root = 0;
    std::uint64_t _table = 0;
    std::vector<Measure> _measured;
    std::vector<Step> _path;
};

}  // namespace

std::optional<std::string> outOfBounds(std::span<const std::uint8_t> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return text.starts_with("bplist") ? BinaryBounds(bytes).check() : XmlBounds(text).check();
}

}  // namespace quorvane::platform
