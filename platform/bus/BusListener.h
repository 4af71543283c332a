#pragma once

#include "platform/base/Result.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/base/UserAccount.h"
#include "platform/bus/BusConnection.h"
#include "platform/loop/RunLoop.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace quorvane::platform {

/// A listener on a named service: a Unix stream socket, handed over by the launcher (sd_listen_fds(3)) or
/// made here. Accepts on the run loop's thread and gives each connection to the delegate. Connections past
/// the bounds of their slot (UserAccount.h) are closed at once.
class BusListener {
  public:
    /// Decides whether to serve a new connection, and sets it up but for resume().
    using Delegate = std::function<bool(const std::shared_ptr<BusConnection>&)>;

    /// Listens at the path. A socket file that no process listens at is replaced.
    static Result<std::unique_ptr<BusListener>> initWithSocketPath(const std::string& path);
    ~BusListener();
    BusListener(const BusListener&) = delete;
    BusListener& operator=(const BusListener&) = delete;

    void setDelegate(Delegate delegate) { _delegate = std::move(delegate); }

    /// Starts accepting. False when the loop refuses.
    bool resume(RunLoop& loop);

    /// Stops accepting, ends every connection and calls the handler on the loop's thread when all are gone.
    void invalidateAll(RunLoop::Handler allGone);

    /// Stops listening and removes a socket made here. Once the loop has ended.
    void close();

  private:
    explicit BusListener(UniqueDescriptor socket, std::string ownedPath);
    void acceptWaiting();
    void accept(UniqueDescriptor socket);
    std::optional<UserAccount::Charge> admit(uid_t user);
    void connectionEnded(std::uint64_t number);
    void pause();

    UniqueDescriptor _socket;
    std::string _ownedPath;  ///< Removed at the end; empty for a socket that the launcher made.
    RunLoop* _loop = nullptr;
    Delegate _delegate;
    std::set<uid_t> _refused;  ///< Users of whom none was taken since one was refused.
    bool _accepting = false;

    Mutex _mutex;
    /// By numbers: the address of one that is gone and still filed may be another's already.
    std::map<std::uint64_t, std::weak_ptr<BusConnection>> _connections GUARDED_BY(_mutex);
    std::uint64_t _accepted = 0;
    RunLoop::Handler _allGone GUARDED_BY(_mutex);
};

}  // namespace quorvane::platform
