#include "platform/bus/BusHeader.h"

#include <systemd/sd-bus-protocol.h>

#include <bit>
#include <cstring>

namespace quorvane::platform {

namespace {

constexpr std::uint8_t kLittleEndian = 'l';
constexpr std::uint8_t kBigEndian = 'B';
constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kNoReplyExpected = 1;
constexpr std::size_t kMaximumMessageBytes = 128u << 20;

constexpr std::size_t aligned(std::size_t offset, std::size_t to) {
    return (offset + to - 1) / to * to;
}

std::uint32_t numberAt(std::span<const std::uint8_t> bytes, std::size_t offset, bool isForeignEndian) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return isForeignEndian ? __builtin_bswap32(number) : number;
}

/// Reads the fields between header and body one after another. All that D-Bus knows are texts or numbers.
class FieldReader {
  public:
    FieldReader(std::span<const std::uint8_t> fields, bool isForeignEndian)
        : _bytes(fields), _isForeignEndian(isForeignEndian) {}

    struct Field {
        std::uint8_t code = 0;
        char type = 0;
        std::string_view text;
        std::uint32_t number = 0;
    };

    bool atEnd() const { return _at == _bytes.size(); }

    /// The next field; nothing when it is malformed.
    std::optional<Field> next() {
        Field field;
        if (!align(8) || left() < 4 || _bytes[_at + 1] != 1 || _bytes[_at + 3] != 0) return std::nullopt;
        field.code = _bytes[_at];
        field.type = static_cast<char>(_bytes[_at + 2]);
        _at += 4;
        bool isRead = false;
        if (field.type == SD_BUS_TYPE_UINT32)
            isRead = number(field.number);
        else if (field.type == SD_BUS_TYPE_STRING || field.type == SD_BUS_TYPE_OBJECT_PATH)
            isRead = number(field.number) && text(field.number, field.text);
        else if (field.type == SD_BUS_TYPE_SIGNATURE && left() > 0)
            isRead = text(_bytes[_at++], field.text);
        return isRead ? std::optional(field) : std::nullopt;
    }

  private:
    std::size_t left() const { return _bytes.size() - _at; }

    bool align(std::size_t to) {
        _at = aligned(_at, to);
        return _at <= _bytes.size();
    }

    bool number(std::uint32_t& out) {
        if (!align(4) || left() < 4) return false;
        out = numberAt(_bytes, _at, _isForeignEndian);
        _at += 4;
        return true;
    }

    bool text(std::size_t size, std::string_view& out) {
        if (left() < size + 1 || _bytes[_at + size] != 0) return false;
        out = {reinterpret_cast<const char*>(_bytes.data() + _at), size};
        _at += size + 1;
        return true;
    }

    std::span<const std::uint8_t> _bytes;  ///< Begins at a multiple of eight.
    std::size_t _at = 0;
    bool _isForeignEndian;
};

}  // namespace

std::optional<BusHeader> readBusHeader(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < BusHeader::kBytes) return std::nullopt;
    if ((bytes[0] != kLittleEndian && bytes[0] != kBigEndian) || bytes[3] != kVersion) return std::nullopt;
    BusHeader header{};
    header.isForeignEndian = (bytes[0] == kBigEndian) != (std::endian::native == std::endian::big);
    header.type = bytes[1];
    header.flags = bytes[2];
    const std::size_t bodyBytes = numberAt(bytes, 4, header.isForeignEndian);
    header.serial = numberAt(bytes, 8, header.isForeignEndian);
    header.fieldBytes = numberAt(bytes, 12, header.isForeignEndian);
    header.messageBytes = BusHeader::kBytes + aligned(header.fieldBytes, 8) + bodyBytes;
    if (header.messageBytes > kMaximumMessageBytes) return std::nullopt;
    return header;
}

std::optional<BusFileCall> readBusFileCall(std::span<const std::uint8_t> message) {
    const auto header = readBusHeader(message);
    if (!header || header->messageBytes != message.size() || header->type != SD_BUS_MESSAGE_METHOD_CALL ||
        header->serial == 0)
        return std::nullopt;
    BusFileCall call{.path = {},
                     .interface = {},
                     .member = {},
                     .serial = header->serial,
                     .expectsReply = (header->flags & kNoReplyExpected) == 0};
    std::string_view signature;
    std::uint32_t descriptors = 0;
    FieldReader fields(message.subspan(BusHeader::kBytes, header->fieldBytes), header->isForeignEndian);
    while (!fields.atEnd()) {
        const auto field = fields.next();
        if (!field) return std::nullopt;
        switch (field->code) {
            case 1:
                call.path = field->text;
                break;
            case 2:
                call.interface = field->text;
                break;
            case 3:
                call.member = field->text;
                break;
            case 8:
                signature = field->text;
                break;
            case 9:
                descriptors = field->number;
                break;
            default:
                break;
        }
    }
    // The body is the index of the one descriptor.
    const std::size_t body = BusHeader::kBytes + aligned(header->fieldBytes, 8);
    if (signature != "h" || descriptors != 1 || message.size() != body + 4 ||
        numberAt(message, body, header->isForeignEndian) != 0)
        return std::nullopt;
    return call;
}

}  // namespace quorvane::platform
