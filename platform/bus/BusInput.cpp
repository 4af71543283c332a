#include "platform/bus/BusInput.h"

#include "platform/bus/BusHeader.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

namespace quorvane::platform {

namespace {

/// So much is looked at in one go: dozens of events.
constexpr std::size_t kPeekedBytes = 16u << 10;

bool isAcceptable(const std::optional<BusHeader>& header) {
    return header && header->fieldBytes <= BusHeader::kMaximumFieldBytes;
}

}  // namespace

BusInput::Next BusInput::next() {
    if (_unfinishedBytes == 0) _charge = {};
    if (_deadline && std::chrono::steady_clock::now() >= *_deadline) return Next::Refused;
    if (_wholeMessages > 0 || _unfinishedBytes > 0) return Next::Message;
    if (_fileMessageBytes > 0) return Next::File;
    return std::exchange(_nothingBehind, false) ? Next::Nothing : look();
}

void BusInput::messageRead() {
    if (_wholeMessages > 0) --_wholeMessages;
    _unfinishedBytes = 0;
    _deadline.reset();
}

/// Without room for control data the kernel tells that descriptors are there and makes none of them.
BusInput::Peeked BusInput::peek(std::uint8_t* into, std::size_t most) const {
    iovec part{into, most};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const ssize_t size = ::recvmsg(_socket, &message, MSG_PEEK | MSG_DONTWAIT);
    return {size, size >= 0 && (message.msg_flags & MSG_CTRUNC) != 0};
}

BusInput::Next BusInput::look() {
    std::array<std::uint8_t, kPeekedBytes> bytes;
    const Peeked peeked = peek(bytes.data(), bytes.size());
    if (peeked.bytes < 0) return errno == EAGAIN || errno == EINTR ? Next::Nothing : Next::Refused;
    if (peeked.bytes == 0) return Next::End;
    const auto size = static_cast<std::size_t>(peeked.bytes);
    if (peeked.withDescriptors) return firstMessage(bytes.data(), size);
    const std::size_t served = serve({bytes.data(), size});
    return served > 0 ? drop(bytes.data(), served, size) : wholeMessages(bytes.data(), size);
}

/// How many bytes at the front were messages that have been served.
std::size_t BusInput::serve(std::span<const std::uint8_t> bytes) const {
    std::span<const std::uint8_t> left = bytes;
    while (_server && left.size() >= BusHeader::kBytes) {
        const auto header = readBusHeader(left);
        if (!isAcceptable(header) || header->messageBytes > left.size()) break;
        if (!_server(left.first(header->messageBytes))) break;
        left = left.subspan(header->messageBytes);
    }
    return bytes.size() - left.size();
}

/// Takes what has been served out of the stream.
BusInput::Next BusInput::drop(std::uint8_t* bytes, std::size_t served, std::size_t size) {
    _deadline.reset();
    _nothingBehind = served == size && size < kPeekedBytes;
    const ssize_t dropped = ::recv(_socket, bytes, served, MSG_DONTWAIT);
    return dropped == static_cast<ssize_t>(served) ? Next::Served : Next::Refused;
}

BusInput::Next BusInput::wholeMessages(const std::uint8_t* bytes, std::size_t size) {
    std::span<const std::uint8_t> left(bytes, size);
    while (left.size() >= BusHeader::kBytes) {
        const auto header = readBusHeader(left);
        if (!isAcceptable(header)) return _wholeMessages > 0 ? Next::Message : Next::Refused;
        if (header->messageBytes > left.size()) {
            return _wholeMessages > 0 ? Next::Message : begin(header->messageBytes);
        }
        ++_wholeMessages;
        left = left.subspan(header->messageBytes);
    }
    _nothingBehind = left.empty() && size < kPeekedBytes;
    if (_wholeMessages > 0) return Next::Message;
    startTime();
    return Next::Part;
}

/// The kernel's look ends behind the first bytes that came with descriptors, which need not be the first
/// message's.
BusInput::Next BusInput::firstMessage(std::uint8_t* bytes, std::size_t size) {
    const auto header = readBusHeader({bytes, size});
    if (!isAcceptable(header) || header->messageBytes > size) return Next::Refused;
    const Peeked exactly = peek(bytes, header->messageBytes);
    if (exactly.bytes != static_cast<std::ptrdiff_t>(header->messageBytes)) return Next::Refused;
    if (!exactly.withDescriptors) {
        _wholeMessages = 1;
        return Next::Message;
    }
    _fileMessageBytes = header->messageBytes;
    return Next::File;
}

BusInput::Next BusInput::begin(std::size_t bytes) {
    startTime();
    // The bus library holds the message while its values are read.
    auto charge = _account->charge(UserAccount::Slot::Bytes, 2 * bytes);
    if (!charge) return Next::Part;
    _charge = *std::move(charge);
    _unfinishedBytes = bytes;
    return Next::Message;
}

void BusInput::startTime() {
    if (!_deadline) _deadline = std::chrono::steady_clock::now() + _messageTime;
}

std::optional<BusInput::FileMessage> BusInput::takeFileMessage() {
    FileMessage taken;
    taken.bytes.resize(std::exchange(_fileMessageBytes, 0));
    _deadline.reset();
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec part{taken.bytes.data(), taken.bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_LEN(sizeof(int));  // Its padding would have room for a second one.
    const ssize_t size = ::recvmsg(_socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0) return std::nullopt;
    const cmsghdr* rights = CMSG_FIRSTHDR(&message);
    if (rights != nullptr && rights->cmsg_level == SOL_SOCKET && rights->cmsg_type == SCM_RIGHTS) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
        taken.file.reset(descriptor);
    }
    const bool isWhole = static_cast<std::size_t>(size) == taken.bytes.size();
    if (!isWhole || !taken.file || (message.msg_flags & MSG_CTRUNC) != 0) return std::nullopt;
    return taken;
}

}  // namespace quorvane::platform
