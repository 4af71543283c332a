#include "platform/bus/BusTextReply.h"

#include "platform/bus/BusText.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <systemd/sd-bus.h>

#include <bit>
#include <cstddef>

namespace quorvane::platform {

namespace {

static_assert(std::endian::native == std::endian::little, "numbers lie in memory as they are written");

/// A local socket takes so much at once or not at all.
constexpr std::size_t kMaximumText = 16u << 10;

/// All of the message but the text itself, as D-Bus lays it out (dbus.freedesktop.org, "Message Format").
struct Head {
    char endianness = 'l';
    std::uint8_t type = SD_BUS_MESSAGE_METHOD_RETURN;
    std::uint8_t flags = 1;  // It wants no reply.
    std::uint8_t version = 1;
    std::uint32_t bodyBytes = 4;
    std::uint32_t serial = UINT32_MAX;  // Nobody names it, so all have the same.
    std::uint32_t fieldBytes = 16;
    char replySerial[4] = {5, 1, 'u', 0};
    std::uint32_t answered = 0;
    char signature[8] = {8, 1, 'g', 0, 2, 'a', 's', 0};
    std::uint32_t arrayBytes = 0;
    std::uint32_t textBytes = 0;  // Where there is a text.
};
static_assert(sizeof(Head) == 40);

}  // namespace

bool writeTextReply(int socket, std::uint32_t serial, const std::string* text) {
    if (text != nullptr && (text->size() > kMaximumText || !isBusText(*text))) return false;
    Head head{.answered = serial};
    std::size_t headBytes = offsetof(Head, textBytes);
    std::size_t textBytes = 0;
    if (text != nullptr) {
        headBytes = sizeof head;
        textBytes = text->size() + 1;
        head.textBytes = static_cast<std::uint32_t>(text->size());
        head.arrayBytes = static_cast<std::uint32_t>(sizeof head.textBytes + textBytes);
        head.bodyBytes += head.arrayBytes;
    }
    iovec parts[] = {{&head, headBytes}, {const_cast<char*>(text ? text->c_str() : ""), textBytes}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t written = ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (written == static_cast<ssize_t>(headBytes + textBytes)) return true;
    // Behind a part of a message nothing can follow.
    if (written > 0) ::shutdown(socket, SHUT_RDWR);
    return false;
}

}  // namespace quorvane::platform
