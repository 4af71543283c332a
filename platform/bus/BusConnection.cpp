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

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

constexpr std::chrono::seconds kAuthenticationTime{10};

/// How long a client that the daemon leaves may take to read what it is told in the end.
constexpr std::chrono::seconds kLastWordsTime{1};

/// How long to wait for the rest of a header of which only some bytes have come.
constexpr std::chrono::milliseconds kHeaderPause{100};

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

UniqueDescriptor socketPair(UniqueDescriptor& other) {
    std::array<int, 2> ends{-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) return {};
    other.reset(ends[1]);
    return UniqueDescriptor(ends[0]);
}

}  // namespace

// The bus.

int BusConnection::silentSocket() {
    static Mutex mutex;
    static UniqueDescriptor other;
    static UniqueDescriptor silent;
    const MutexLock lock(mutex);
    if (!silent) silent = socketPair(other);
    return silent.get();
}

std::shared_ptr<BusConnection> BusConnection::initWithDescriptor(UniqueDescriptor socket, Peer peer) {
    std::shared_ptr<BusConnection> connection(new BusConnection(socket.get(), peer));
    connection->_wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!connection->_wake || silentSocket() < 0 || !connection->openBus(std::move(socket))) return nullptr;
    if (::setsockopt(connection->_socket, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer) != 0)
        return nullptr;
    return connection;
}

BusConnection::BusConnection(int socket, Peer peer)
    : _peer(peer), _account(UserAccount::of(peer.uid)), _socket(socket), _input(socket, _account) {}

BusConnection::~BusConnection() {
    ::sd_bus_close_unref(_bus);
}

/// The bus takes its output over. It has no descriptors to negotiate (BusInput.h), and need not check who its
/// client is: it could ask its input only, and the kernel has told already.
bool BusConnection::openBus(UniqueDescriptor output) {
    UniqueDescriptor input = _authentication.makeInput();
    sd_id128_t id;
    if (!input || ::sd_id128_randomize(&id) < 0 || ::sd_bus_new(&_bus) < 0) return false;
    if (::sd_bus_set_fd(_bus, input.get(), output.get()) < 0) return false;
    _busInput = input.release();
    output.release();
    const auto messageRead = [](sd_bus_message*, void* read, sd_bus_error*) {
        static_cast<BusInput*>(read)->messageRead();
        return 0;
    };
    return ::sd_bus_set_server(_bus, 1, id) >= 0 && ::sd_bus_set_anonymous(_bus, 1) >= 0 &&
           ::sd_bus_negotiate_fds(_bus, 0) >= 0 && addBusDriver(_bus) >= 0 &&
           ::sd_bus_add_filter(_bus, nullptr, messageRead, &_input) >= 0 && ::sd_bus_start(_bus) >= 0;
}

bool BusConnection::setExportedObject(const char* path, const char* interface, const sd_bus_vtable* vtable,
                                      std::shared_ptr<void> object) {
    return exportOnBus(_exported.emplace_back(Exported{path, interface, vtable, std::move(object)}));
}

bool BusConnection::exportOnBus(const Exported& exported) {
    return ::sd_bus_add_object_vtable(_bus, nullptr, exported.path, exported.interface, exported.vtable,
                                      exported.object.get()) >= 0;
}

// The thread.

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
    finish(serveUntilItEnds());
    servedHere = nullptr;
}

/// A client that leaves is told nothing more. One that is left, and reads, is told what waits for it and what
/// the handlers' and the objects' ends have to say.
void BusConnection::finish(Ending ending) {
    const auto end = std::chrono::steady_clock::now() + kLastWordsTime;
    const bool listens = _ending && !_vanished && ::sd_bus_is_ready(_bus) > 0 && writeAllUntil(end);
    if (!listens) servedHere = nullptr;
    std::vector<QueuedCall> rest;
    {
        const MutexLock lock(_mutex);
        _over = true;  // The bus closes the socket soon.
        rest.swap(_calls);
    }
    for (const QueuedCall& queued : rest) queued.call(listens ? _bus : nullptr);
    if (ending == Ending::Broken && _interruptionHandler) _interruptionHandler();
    if (_invalidationHandler) _invalidationHandler();
    _interruptionHandler = nullptr;
    _invalidationHandler = nullptr;
    _idleHandler = nullptr;
    _fileHandler = nullptr;
    _dictionaryHandler = nullptr;
    _exported.clear();
    if (listens) writeAllUntil(end);
    _bus = ::sd_bus_close_unref(_bus);
}

BusConnection::Ending BusConnection::serveUntilItEnds() {
    int result = authenticate();
    if (result < 0) return endingOfSocket();
    while (result >= 0) {
        result = serveWaiting();
        if (result >= 0 && !workWhileIdle()) result = waitForWork();
    }
    if (result == -EBADMSG) return Ending::Broken;
    serveRest();
    return endingOfSocket();
}

/// The kernel tends to wake a client on the processor that answers it, where it then waits for this thread.
bool BusConnection::workWhileIdle() {
    if (!_idleHandler || !_idleHandler()) return false;
    std::this_thread::yield();
    return true;
}

int BusConnection::authenticate() {
    const auto end = std::chrono::steady_clock::now() + kAuthenticationTime;
    for (;;) {
        const int result = _authentication.process(_bus, _socket);
        if (result < 0) return result;
        if (result > 0) break;
        if (std::chrono::steady_clock::now() >= end) return -ETIMEDOUT;
        if (const int waited = wait(POLLIN, std::chrono::seconds(1)); waited < 0) return waited;
    }
    _authentication = {};
    return ::dup3(_socket, _busInput, O_CLOEXEC) < 0 ? -errno : 0;
}

/// Serves all that is there; negative errno at the connection's end, -EBADMSG when it is ended.
int BusConnection::serveWaiting() {
    for (int result = 1; result > 0;) {
        result = drainReplies();
        if (result >= 0) {
            runQueuedCalls();  // Behind draining, which takes the sign that they have come.
            result = serveNext(_input.next());
        }
        if (::sd_bus_is_open(_bus) <= 0) {
            // It could not write: processed once more it would close its descriptors, which are needed still.
            _vanished = true;
            return -ECONNRESET;
        }
        if (result <= 0) return result;
    }
    return 0;
}

int BusConnection::serveNext(BusInput::Next next) {
    switch (next) {
        case BusInput::Next::Served:
            return 1;
        case BusInput::Next::Message:
            return ::sd_bus_process(_bus, nullptr);
        case BusInput::Next::File:
            return serveFileCall();
        case BusInput::Next::End:
            return -ECONNRESET;
        case BusInput::Next::Refused:
            return -EBADMSG;
        case BusInput::Next::Part:
            return _nothingFollows ? -EBADMSG : 0;
        case BusInput::Next::Nothing:
            break;
    }
    return 0;
}

/// A bus gives up at the first answer that it cannot send. What its client had sent until then is served all
/// the same, by a second one whose answers nobody reads: there is no more of it than the kernel holds.
void BusConnection::serveRest() {
    if (!_input.betweenMessages()) return;
    UniqueDescriptor nobody;
    sd_bus* const first = std::exchange(_bus, nullptr);
    _servesRest = true;
    bool serves = openBus(socketPair(nobody));
    for (const Exported& exported : _exported) serves = serves && exportOnBus(exported);
    serves = serves && _authentication.skip(_bus) >= 0 && ::dup3(_socket, _busInput, O_CLOEXEC) >= 0;
    while (serves) {
        BusInput::Next next = _input.next();
        if (next == BusInput::Next::Nothing) next = _input.next();
        serves = serveNext(next) > 0;
    }
    ::sd_bus_close_unref(std::exchange(_bus, first));
}

int BusConnection::waitForWork() {
    const auto now = std::chrono::steady_clock::now();
    std::uint64_t waiting = 0;
    ::sd_bus_get_n_queued_write(_bus, &waiting);
    std::optional<std::chrono::milliseconds> longest;
    if (const auto deadline = _input.deadline())
        longest = std::chrono::ceil<std::chrono::milliseconds>(std::max(*deadline - now, {}));
    if (_input.hasPart()) longest = std::min(*longest, kHeaderPause);
    const int events = (_input.hasPart() ? POLLRDHUP : POLLIN) | (waiting > 0 ? POLLOUT : 0);
    const int happened = wait(static_cast<short>(events), longest);
    if (happened < 0) return happened;
    // The rest of a header may have come before.
    if ((happened & (POLLRDHUP | POLLHUP)) != 0) _nothingFollows = true;
    return waiting > 0 && (happened & POLLOUT) != 0 ? writeQueued() : 0;
}

/// Until one of the events has come to the socket, or something to do to the thread. Gives the events.
int BusConnection::wait(short events, std::optional<std::chrono::milliseconds> longest) {
    pollfd descriptors[] = {{_socket, events, 0}, {_wake.get(), POLLIN, 0}};
    if (::poll(descriptors, 2, longest ? static_cast<int>(longest->count()) : -1) < 0 && errno != EINTR)
        return -errno;
    // The kernel reports a socket's error once: the read that follows would take it.
    if ((descriptors[0].revents & POLLERR) != 0) _vanished = true;
    if ((descriptors[1].revents & POLLIN) != 0) {
        eventfd_t count = 0;
        ::eventfd_read(_wake.get(), &count);
    }
    return descriptors[0].revents;
}

// Calls out.

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
    // A bus that has failed may have closed its descriptors: the number would be another connection's by now.
    if (_vanished || ::sd_bus_is_open(_bus) <= 0) return Ending::Broken;
    return ::recv(_socket, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0 ? Ending::Orderly : Ending::Broken;
}

/// What has come already stays to be read, and answers still reach a client that reads.
void BusConnection::invalidate() {
    const MutexLock lock(_mutex);
    if (_over) return;
    _ending = true;
    ::shutdown(_socket, SHUT_RD);
    ::eventfd_write(_wake.get(), 1);
}

bool BusConnection::queueCall(std::size_t bytes, std::function<void(sd_bus*)> call) {
    if (servedHere == this) {
        runQueuedCalls();  // They came first.
        run({bytes, std::move(call)});
        return true;
    }
    auto charge = _account->charge(UserAccount::Slot::Bytes, bytes);
    if (!charge) return false;
    {
        const MutexLock lock(_mutex);
        if (_over || (!_calls.empty() && _callBytes + bytes > kQueuedCallBytes)) return false;
        _callBytes += bytes;
        _calls.push_back({bytes, std::move(call), *std::move(charge)});
        if (_calls.size() > 1) return true;  // The thread was woken for the first.
    }
    ::eventfd_write(_wake.get(), 1);
    return true;
}

std::string BusConnection::description() const {
    return fmt::format("connection of process {} (user {})", _peer.pid, _peer.uid);
}

}  // namespace quorvane::platform
