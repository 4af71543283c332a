#pragma once

#include "platform/base/UniqueDescriptor.h"
#include "platform/bus/BusMessage.h"

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace quorvane::test {

using Message = platform::BusMessage;

/// The answer to a call: a message, or the name of the error.
struct BusReply {
    Message message;
    std::string error;
};

/// A socket connected to the Unix socket at the path; none when nobody listens there.
platform::UniqueDescriptor connectSocket(const std::string& path);

/// Sends the bytes with so many descriptors of standard input; whether they were taken.
bool sendWithDescriptors(const platform::UniqueDescriptor& socket, std::string_view bytes, std::size_t count);

/// The client's end of a peer-to-peer D-Bus connection, by the bus library alone, for what libquorvane would
/// not do. Belongs to one thread.
class BusClient {
  public:
    explicit BusClient(platform::UniqueDescriptor socket);
    explicit BusClient(const std::string& path) : BusClient(connectSocket(path)) {}
    ~BusClient() { close(); }
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    sd_bus* bus() const { return _bus; }
    /// Ends the connection without writing or reading what waits.
    void close() { _bus = ::sd_bus_close_unref(_bus); }

    /// A new call to the object path of the daemon.
    Message newCall(const char* interface, const char* member) const;
    /// Sends the call and waits for its answer.
    BusReply call(const Message& message) const;

    /// The same for a call whose arguments sd_bus_message_append(3) can take.
    template <typename... Arguments>
    BusReply call(const char* interface, const char* member, const char* types = "",
                  Arguments... arguments) const {
        const Message message = newCall(interface, member);
        ::sd_bus_message_append(message.get(), types, arguments...);
        return call(message);
    }

  private:
    sd_bus* _bus = nullptr;
};

}  // namespace quorvane::test
