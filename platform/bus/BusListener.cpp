#include "platform/bus/BusListener.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace quorvane::platform {

namespace {

/// Connections accepted before the loop's other handlers get their turn.
constexpr int kAtATime = 64;

/// After descriptors run out, accepting waits this long rather than spin.
constexpr std::chrono::seconds kPause{1};

UniqueDescriptor socketFromLauncher() {
    const int count = ::sd_listen_fds(1);
    for (int descriptor = SD_LISTEN_FDS_START; descriptor < SD_LISTEN_FDS_START + count; ++descriptor)
        if (::sd_is_socket_unix(descriptor, SOCK_STREAM, 1, nullptr, 0) > 0)
            return UniqueDescriptor(descriptor);
    return {};
}

bool someoneListens(const sockaddr_un& address) {
    const UniqueDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

Result<UniqueDescriptor> socketAt(const std::string& path) {
    const auto failed = [&path](const char* what) {
        return failure("cannot " + std::string(what) + " " + path + ": " + std::strerror(errno));
    };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return failed("listen at");
    }
    path.copy(address.sun_path, path.size());
    if (!createDirectories(path.substr(0, path.rfind('/')))) return failed("make the folder of");
    if (someoneListens(address)) {
        errno = EADDRINUSE;
        return failed("listen at");
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) return failed("remove the stale socket");
    UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket || ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return failed("bind");
    // Any user's services may report.
    if (::chmod(path.c_str(), 0666) != 0) return failed("open to all users");
    if (::listen(socket.get(), SOMAXCONN) != 0) return failed("listen at");
    return socket;
}

/// Whether the process at the other end, whose first group is given, belonged to the group as it connected.
bool isMember(int socket, gid_t first, gid_t group) {
    if (first == group) return true;
    std::vector<gid_t> others(32);
    socklen_t size = others.size() * sizeof(gid_t);
    int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, others.data(), &size);
    others.resize(size / sizeof(gid_t));
    if (result != 0 && errno == ERANGE)
        result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, others.data(), &size);
    return result == 0 && std::find(others.begin(), others.end(), group) != others.end();
}

BusConnection::Peer peerOf(int socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size);
    return {credentials.pid, credentials.uid, isMember(socket, credentials.gid, ::getegid())};
}

}  // namespace

Result<std::unique_ptr<BusListener>> BusListener::initWithSocketPath(const std::string& path) {
    UniqueDescriptor socket = socketFromLauncher();
    std::string ownedPath;
    if (!socket) {
        auto made = socketAt(path);
        if (!made) return tl::unexpected(std::move(made).error());
        socket = *std::move(made);
        ownedPath = path;
    }
    const int flags = ::fcntl(socket.get(), F_GETFL);
    ::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK);
    return std::unique_ptr<BusListener>(new BusListener(std::move(socket), std::move(ownedPath)));
}

BusListener::BusListener(UniqueDescriptor socket, std::string ownedPath)
    : _socket(std::move(socket)), _ownedPath(std::move(ownedPath)) {}

BusListener::~BusListener() {
    close();
    // The last connection's thread may just be leaving connectionEnded().
    const MutexLock lock(_mutex);
}

void BusListener::close() {
    if (!_ownedPath.empty()) ::unlink(_ownedPath.c_str());
    _ownedPath.clear();
    _socket.reset();
}

bool BusListener::resume(RunLoop& loop) {
    _loop = &loop;
    _accepting = true;
    return loop.addReadSource(_socket.get(), [this] { acceptWaiting(); });
}

void BusListener::acceptWaiting() {
    for (int taken = 0; _accepting && taken < kAtATime; ++taken) {
        UniqueDescriptor socket(::accept4(_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) pause();
            return;
        }
        accept(std::move(socket));
    }
}

void BusListener::accept(UniqueDescriptor socket) {
    const BusConnection::Peer peer = peerOf(socket.get());
    auto admitted = admit(peer.uid);
    if (!admitted) return;
    const auto connection = BusConnection::initWithDescriptor(std::move(socket), peer);
    if (connection == nullptr) {
        logError("listener: a connection of process {} could not be set up", peer.pid);
        return;
    }
    const std::uint64_t number = ++_accepted;
    {
        const MutexLock lock(_mutex);
        _connections.emplace(number, connection);
    }
    const auto charge = std::make_shared<UserAccount::Charge>(*std::move(admitted));
    const auto ended = [this, number, charge] {
        *charge = {};
        connectionEnded(number);
    };
    if (_delegate(connection) && connection->resume(ended)) return;
    logError("listener: a connection of process {} could not be served", peer.pid);
    connectionEnded(number);
}

std::optional<UserAccount::Charge> BusListener::admit(uid_t user) {
    const auto account = UserAccount::of(user);
    auto admitted = account->charge(UserAccount::Slot::Connections, 1);
    if (admitted)
        _refused.erase(user);
    else if (_refused.insert(user).second)  // One line however many are refused.
        logWarning("listener: user {} has {} connections, no more are taken", user,
                   account->taken(UserAccount::Slot::Connections));
    return admitted;
}

void BusListener::connectionEnded(std::uint64_t number) {
    const MutexLock lock(_mutex);
    [[maybe_unused]] const std::size_t erased = _connections.erase(number);
    assert(erased == 1);  // One left behind, or ended twice, would keep the process from ending, or hurry it.
    if (_allGone && _connections.empty()) _loop->post(std::exchange(_allGone, nullptr));
}

void BusListener::pause() {
    logError("listener: no more connections can be accepted for now ({})", std::strerror(errno));
    _loop->setReadSourceEnabled(_socket.get(), false);
    _loop->addTimer(kPause, [this] { _loop->setReadSourceEnabled(_socket.get(), _accepting); });
}

void BusListener::invalidateAll(RunLoop::Handler allGone) {
    _accepting = false;
    _loop->setReadSourceEnabled(_socket.get(), false);
    std::vector<std::shared_ptr<BusConnection>> connections;
    {
        const MutexLock lock(_mutex);
        for (const auto& [number, weak] : _connections)
            if (auto connection = weak.lock()) connections.push_back(std::move(connection));
        if (_connections.empty())
            _loop->post(std::move(allGone));
        else
            _allGone = std::move(allGone);
    }
    for (const auto& connection : connections) connection->invalidate();
}

}  // namespace quorvane::platform
