#include "platform/bus/BusHeader.h"

#include <systemd/sd-bus-protocol.h>

#include <bit>
#include <cstring>
#include <utility>

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

    /// What fills up is zero.
    bool align(std::size_t to) {
        for (; _at % to != 0; ++_at)
            if (left() == 0 || _bytes[_at] != 0) return false;
        return true;
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

/// False when the field is of the wrong type, empty, or there already.
bool takeField(const FieldReader::Field& field, BusCall& call) {
    const auto text = [&](std::string_view& taken, char type) {
        return field.type == type && !field.text.empty() && std::exchange(taken, field.text).empty();
    };
    switch (field.code) {
        case 1:
            return text(call.path, SD_BUS_TYPE_OBJECT_PATH);
        case 2:
            return text(call.interface, SD_BUS_TYPE_STRING);
        case 3:
            return text(call.member, SD_BUS_TYPE_STRING);
        case 8:
            return text(call.signature, SD_BUS_TYPE_SIGNATURE);
        case 9:
            return field.type == SD_BUS_TYPE_UINT32 && std::exchange(call.descriptors, field.number) == 0;
        default:
            call.hasOtherFields = true;
            return true;
    }
}

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

std::optional<BusCall> readBusCall(std::span<const std::uint8_t> message) {
    const auto header = readBusHeader(message);
    if (!header || header->messageBytes != message.size() || header->type != SD_BUS_MESSAGE_METHOD_CALL ||
        header->serial == 0)
        return std::nullopt;
    const std::size_t body = BusHeader::kBytes + aligned(header->fieldBytes, 8);
    BusCall call{.path = {},
                 .interface = {},
                 .member = {},
                 .signature = {},
                 .serial = header->serial,
                 .expectsReply = (header->flags & kNoReplyExpected) == 0,
                 .isForeignEndian = header->isForeignEndian,
                 .body = message.subspan(body)};
    FieldReader fields(message.subspan(BusHeader::kBytes, header->fieldBytes), header->isForeignEndian);
    while (!fields.atEnd()) {
        const auto field = fields.next();
        if (!field || !takeField(*field, call)) return std::nullopt;
    }
    return call;
}

bool bringsOneFile(const BusCall& call) {
    return call.signature == "h" && call.descriptors == 1 && call.body.size() == 4 &&
           numberAt(call.body, 0, call.isForeignEndian) == 0;
}

}  // namespace quorvane::platform
