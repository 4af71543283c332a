#pragma once

#include "platform/base/UniqueDescriptor.h"
#include "platform/base/UserAccount.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace quorvane::platform {

/// Looks at what a client has sent before the bus library reads it. Attack and fact: the library takes every
/// descriptor that comes along, and of a malformed message it never closes them; it makes room for a message
/// as soon as the header has told its size. So descriptors are refused to it (it ends a connection that
/// brings one all the same), the one call that brings a file is taken out of the stream here, and what no
/// call of this daemon looks like ends the connection.
///
/// Looking takes one system call for all that has come, up to some kilobytes, and saves the one by which the
/// library would find out that nothing is left. Belongs to the connection's thread.
class BusInput {
  public:
    enum class Next {
        Nothing,  ///< Wait for the socket.
        Part,     ///< Too little to know what it is, or no room for it: wait a moment, the socket is
                  ///< readable all the time.
        Served,   ///< The server given has served some, and they are out of the stream.
        Message,  ///< One for the bus library, which may be unfinished yet.
        File,     ///< A message with one descriptor: takeFileMessage().
        End,      ///< The client has closed.
        Refused,  ///< End the connection.
    };

    /// A message with its descriptor.
    struct FileMessage {
        std::vector<std::uint8_t> bytes;
        UniqueDescriptor file;
    };

    /// Longest time that a message may take from its first byte to its last.
    static constexpr std::chrono::seconds kMessageTime{30};

    /// Borrows the socket, whose next byte is a message's first. Large and unfinished messages are charged to
    /// the account; where it has no room they wait for it.
    BusInput(int socket, std::shared_ptr<UserAccount> account,
             std::chrono::milliseconds messageTime = kMessageTime)
        : _socket(socket), _account(std::move(account)), _messageTime(messageTime) {}

    /// What whole messages without descriptors reach first, if they are small and the bus library reads none
    /// before them. It has served one when it gives true; the message is read by the library else.
    using Server = std::function<bool(std::span<const std::uint8_t> message)>;
    void setServer(Server server) { _server = std::move(server); }

    Next next();
    /// Without a message when more than one descriptor has come. After Next::File only.
    std::optional<FileMessage> takeFileMessage();
    /// To be told of every message that the bus library has read whole.
    void messageRead();

    /// When an unfinished message has taken too long.
    std::optional<std::chrono::steady_clock::time_point> deadline() const { return _deadline; }
    /// Whether Next::Part was the last answer.
    bool hasPart() const { return _deadline && _wholeMessages == 0 && _unfinishedBytes == 0; }
    /// Whether what comes next is a message's first byte.
    bool betweenMessages() const { return _unfinishedBytes == 0; }

  private:
    struct Peeked {
        std::ptrdiff_t bytes;
        bool withDescriptors;
    };

    Peeked peek(std::uint8_t* into, std::size_t most) const;
    Next look();
    std::size_t serve(std::span<const std::uint8_t> bytes) const;
    Next drop(std::uint8_t* bytes, std::size_t served, std::size_t size);
    Next wholeMessages(const std::uint8_t* bytes, std::size_t size);
    Next firstMessage(std::uint8_t* bytes, std::size_t size);
    Next begin(std::size_t bytes);
    void startTime();

    const int _socket;
    const std::shared_ptr<UserAccount> _account;
    const std::chrono::milliseconds _messageTime;
    Server _server;
    UserAccount::Charge _charge;     ///< For a message until it has been served.
    std::size_t _wholeMessages = 0;  ///< That are there and have no descriptors.
    bool _nothingBehind = false;     ///< Nothing came after them when they were looked at.
    std::size_t _fileMessageBytes = 0;
    std::size_t _unfinishedBytes = 0;
    std::optional<std::chrono::steady_clock::time_point> _deadline;
};

}  // namespace quorvane::platform
