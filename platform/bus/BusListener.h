#pragma once

#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/bus/BusConnection.h"
#include "platform/loop/RunLoop.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <variant>

namespace quorvane::platform {

/// A listener on a named service: a Unix stream socket, handed over by the launcher (sd_listen_fds(3)) or
/// made here. Accepts on the run loop's thread and gives each connection to the delegate.
class BusListener {
  public:
    /// Decides whether to serve a new connection, and sets it up but for resume().
    using Delegate = std::function<bool(const std::shared_ptr<BusConnection>&)>;

    /// Listens at the path. A socket file that no process listens at is replaced. The text tells why it
    /// failed.
    static std::variant<std::unique_ptr<BusListener>, std::string> initWithSocketPath(
        const std::string& path);
    ~BusListener();
    BusListener(const BusListener&) = delete;
    BusListener& operator=(const BusListener&) = delete;

    void setDelegate(Delegate delegate) { _delegate = std::move(delegate); }
    /// Connections of one user beyond this number are closed at once; 4,096 by default.
    void setConnectionsPerUser(std::size_t most) { _connectionsPerUser = most; }

    /// Starts accepting. False when the loop refuses.
    bool resume(RunLoop& loop);

    /// Stops accepting, ends every connection and calls the handler on the loop's thread when all are gone.
    void invalidateAll(RunLoop::Handler allGone);

    /// Stops listening and removes a socket made here. Once the loop has ended.
    void close();

  private:
    /// What one user has of the connections.
    struct Share {
        std::size_t connections = 0;
        bool isFull = false;  ///< One was refused since the last that was taken.
    };

    explicit BusListener(UniqueDescriptor socket, std::string ownedPath);
    void acceptWaiting();
    void accept(UniqueDescriptor socket);
    bool admit(uid_t user);
    void connectionEnded(const BusConnection* connection, uid_t user);
    void pause();

    UniqueDescriptor _socket;
    std::string _ownedPath;  ///< Removed at the end; empty for a socket that the launcher made.
    RunLoop* _loop = nullptr;
    Delegate _delegate;
    std::size_t _connectionsPerUser = 4096;
    bool _accepting = false;

    Mutex _mutex;
    std::map<const BusConnection*, std::weak_ptr<BusConnection>> _connections GUARDED_BY(_mutex);
    std::map<uid_t, Share> _perUser GUARDED_BY(_mutex);
    RunLoop::Handler _allGone GUARDED_BY(_mutex);
};

}  // namespace quorvane::platform
