#include "platform/bus/BusConnection.h"

#include "platform/base/Log.h"
#include "platform/base/Thread.h"
#include "platform/bus/BusDriver.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <systemd/sd-id128.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

/// Past either bound the connection's next call waits until its client has read. The bus library bounds its
/// own queue by messages only, and far higher.
constexpr std::uint64_t kQueuedReplies = 256;
constexpr std::size_t kQueuedReplyBytes = 1u << 20;

constexpr std::chrono::seconds kAuthenticationTime{10};

/// What the kernel holds for a client that does not read, in bytes; the bus library asks for 8 MiB.
constexpr int kSocketBuffer = 256 << 10;

/// Enough for the deepest value nesting; thousands of connections must not reserve 8 MiB each.
constexpr std::size_t kThreadStackBytes = 1u << 20;

/// The connection whose thread this is.
thread_local const BusConnection* servedHere = nullptr;

bool startThread(void* (*entry)(void*), void* argument) {
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) != 0) return false;
    ::pthread_attr_setstacksize(&attributes, kThreadStackBytes);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int result = ::pthread_create(&thread, &attributes, entry, argument);
    ::pthread_attr_destroy(&attributes);
    return result == 0;
}

}  // namespace

std::shared_ptr<BusConnection> BusConnection::initWithDescriptor(UniqueDescriptor socket, Peer peer) {
    std::shared_ptr<BusConnection> connection(new BusConnection(std::move(socket), peer));
    if (!connection->openBus()) return nullptr;
    return connection;
}

BusConnection::BusConnection(UniqueDescriptor socket, Peer peer) : _peer(peer), _socket(std::move(socket)) {}

BusConnection::~BusConnection() {
    ::sd_bus_close_unref(_bus);
}

bool BusConnection::openBus() {
    UniqueDescriptor ofBus(::fcntl(_socket.get(), F_DUPFD_CLOEXEC, 3));
    _wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    sd_id128_t id;
    if (!ofBus || !_wake || ::sd_id128_randomize(&id) < 0 || ::sd_bus_new(&_bus) < 0) return false;
    if (::sd_bus_set_fd(_bus, ofBus.get(), ofBus.get()) < 0) return false;
    ofBus.release();
    return ::sd_bus_set_server(_bus, 1, id) >= 0 && ::sd_bus_negotiate_fds(_bus, 1) >= 0 &&
           addBusDriver(_bus) >= 0 && ::sd_bus_start(_bus) >= 0 &&
           ::setsockopt(_socket.get(), SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer) == 0;
}

bool BusConnection::setExportedObject(const char* path, const char* interface, const sd_bus_vtable* vtable,
                                      std::shared_ptr<void> object) {
    const int result = ::sd_bus_add_object_vtable(_bus, nullptr, path, interface, vtable, object.get());
    _exportedObject = std::move(object);
    return result >= 0;
}

bool BusConnection::resume(Handler ended) {
    _ended = std::move(ended);
    auto share = std::make_unique<std::shared_ptr<BusConnection>>(shared_from_this());
    const auto entry = [](void* argument) -> void* {
        const std::unique_ptr<std::shared_ptr<BusConnection>> held(
            static_cast<std::shared_ptr<BusConnection>*>(argument));
        (*held)->serve();
        const Handler finished = std::move((*held)->_ended);
        held->reset();
        finished();
        return nullptr;
    };
    if (!startThread(entry, share.get())) {
        finish(Ending::Broken);
        return false;
    }
    static_cast<void>(share.release());
    return true;
}

void BusConnection::serve() {
    nameThisThread(fmt::format("client {}", _peer.uid).c_str());
    servedHere = this;
    const Ending ending = serveUntilItEnds();
    servedHere = nullptr;
    finish(ending);
}

void BusConnection::finish(Ending ending) {
    std::vector<QueuedCall> dropped;
    {
        const MutexLock lock(_mutex);
        _over = true;
        dropped.swap(_calls);
    }
    for (const QueuedCall& queued : dropped) queued.call(nullptr);
    if (ending == Ending::Broken && _interruptionHandler) _interruptionHandler();
    if (_invalidationHandler) _invalidationHandler();
    _interruptionHandler = nullptr;
    _invalidationHandler = nullptr;
    _exportedObject.reset();
    _bus = ::sd_bus_close_unref(_bus);
}

BusConnection::Ending BusConnection::serveUntilItEnds() {
    const auto authenticationEnd = std::chrono::steady_clock::now() + kAuthenticationTime;
    bool authenticated = false;
    for (;;) {
        // What arrives together with the end of authentication waits inside the bus without a readable
        // descriptor, so everything is processed before waiting.
        if (processAll() < 0) return endingOfSocket();
        if (!authenticated) {
            authenticated = ::sd_bus_is_ready(_bus) > 0;
            if (!authenticated && std::chrono::steady_clock::now() >= authenticationEnd)
                return Ending::Broken;
        }
        if (waitForWork(authenticated) < 0) return Ending::Broken;
    }
}

int BusConnection::processAll() {
    for (;;) {
        runQueuedCalls();
        if (const int drained = drainReplies(); drained < 0) return drained;
        const int processed = ::sd_bus_process(_bus, nullptr);
        if (processed <= 0) return processed;
    }
}

int BusConnection::drainReplies() {
    std::uint64_t waiting = 0;
    if (const int result = ::sd_bus_get_n_queued_write(_bus, &waiting); result < 0) return result;
    if (waiting == 0) _replyBytes = 0;
    if (waiting < kQueuedReplies && _replyBytes < kQueuedReplyBytes) return 0;
    _replyBytes = 0;
    return ::sd_bus_flush(_bus);
}

int BusConnection::waitForWork(bool authenticated) {
    const int events = ::sd_bus_get_events(_bus);
    if (events < 0) return events;
    pollfd descriptors[] = {{_socket.get(), static_cast<short>(events), 0}, {_wake.get(), POLLIN, 0}};
    const int timeout = authenticated ? -1 : 1000;
    if (::poll(descriptors, 2, timeout) < 0 && errno != EINTR) return -errno;
    // Reading, which comes next, takes the error away.
    if ((descriptors[0].revents & POLLERR) != 0) _vanished = true;
    if ((descriptors[1].revents & POLLIN) != 0) {
        eventfd_t count = 0;
        ::eventfd_read(_wake.get(), &count);
    }
    return 0;
}

void BusConnection::runQueuedCalls() {
    std::vector<QueuedCall> calls;
    {
        const MutexLock lock(_mutex);
        if (_calls.empty()) return;
        calls.swap(_calls);
        _callBytes = 0;
    }
    for (const QueuedCall& queued : calls) run(queued);
}

void BusConnection::run(const QueuedCall& queued) {
    queued.call(_bus);
    noteQueuedBytes(queued.bytes);
}

BusConnection::Ending BusConnection::endingOfSocket() const {
    // A peer that has closed leaves end of file; one that sent what is no D-Bus is there still, or has left
    // more bytes.
    char next = 0;
    if (_vanished) return Ending::Broken;
    return ::recv(_socket.get(), &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0 ? Ending::Orderly : Ending::Broken;
}

void BusConnection::invalidate() {
    ::shutdown(_socket.get(), SHUT_RDWR);
}

bool BusConnection::queueCall(std::size_t bytes, std::function<void(sd_bus*)> call) {
    if (servedHere == this) {
        runQueuedCalls();  // They came first.
        run({bytes, std::move(call)});
        return true;
    }
    {
        const MutexLock lock(_mutex);
        if (_over || (!_calls.empty() && _callBytes + bytes > kQueuedCallBytes)) return false;
        _callBytes += bytes;
        _calls.push_back({bytes, std::move(call)});
        if (_calls.size() > 1) return true;  // The thread was woken for the first.
    }
    ::eventfd_write(_wake.get(), 1);
    return true;
}

std::string BusConnection::description() const {
    return fmt::format("connection of process {} (user {})", _peer.pid, _peer.uid);
}

}  // namespace quorvane::platform
