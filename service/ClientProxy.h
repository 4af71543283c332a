#pragma once

#include "platform/bus/BusConnection.h"
#include "service/protocols.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace quorvane {

/// The client at the other end of a connection. Calls are sent by the connection's thread without waiting for
/// an answer; what waits is bounded (BusConnection::kQueuedCallBytes), so a client that does not
/// read loses calls and costs nobody else. Thread-safe.
class ClientProxy final : public ClientSessionReplyInterface {
  public:
    /// The connection is borrowed weakly: a proxy may outlive it.
    explicit ClientProxy(const std::shared_ptr<platform::BusConnection>& connection);

    uid_t user() const override { return _peer.uid; }
    pid_t process() const override { return _peer.pid; }

    void sendMessageToClient(const Dictionary& sessionInfo, double timestamp, std::uint16_t category,
                             std::uint16_t type, const Dictionary* payload,
                             ErrorHandler errorHandler) override;

    /// Asks the client to remove the file that it lent under the token.
    void removeFile(const std::string& extensionToken) const;

  private:
    void call(std::size_t bytes, ErrorHandler errorHandler, std::function<void(sd_bus*)> call) const;

    const std::weak_ptr<platform::BusConnection> _connection;
    const platform::BusConnection::Peer _peer;
};

}  // namespace quorvane
