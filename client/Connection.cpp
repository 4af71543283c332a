#include "client/Connection.h"

#include "client/Serialization.h"
#include "framework/Keys.h"
#include "platform/base/Thread.h"
#include "platform/bus/BusMessage.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace quorvane::client {

using platform::MutexLock;

namespace {

/// The most calls that may be unanswered at a time; past it callers wait.
constexpr std::size_t kUnansweredCalls = 1024;

/// Callers that wait for answers are woken when so few calls are left, not by each answer. In case the others
/// are not answered, they look again after a while.
constexpr std::size_t kFewCalls = kUnansweredCalls / 2;
constexpr Timeout kLookAgain = std::chrono::milliseconds(10);

/// Send buffer of the socket, in bytes. sd-bus would ask for 8 MiB, which a slow daemon lets fill up.
constexpr int kSocketBuffer = 256 << 10;

/// The kernel takes a message of this size whole or not at all.
constexpr std::size_t kWholeBytes = 16u << 10;

constexpr Connection::Method kSendMessage{kClientSessionInterface, "SendMessageWithDictionary"};

Deadline sooner(const Deadline& a, const Deadline& b) {
    return a && b ? std::min(*a, *b) : a ? a : b;
}

Error noDaemonError(int error) {
    return {ErrorCode::Disconnected, std::string("no daemon answers: ") + std::strerror(-error)};
}

Error systemError(const char* what, int error) {
    return {ErrorCode::System, std::string(what) + ": " + std::strerror(error < 0 ? -error : error)};
}

Error wouldDeadlock() {
    return {ErrorCode::WouldDeadlock, "the executor runs callbacks on the connection's own thread"};
}

Error encodingError(int error) {
    if (error == -E2BIG) return {ErrorCode::InvalidArgument, "values are nested too deeply"};
    if (error == -ENOMEM) return systemError("cannot encode the message", error);
    return {ErrorCode::InvalidArgument, std::string("the values cannot be sent: ") + std::strerror(-error)};
}

}  // namespace

struct Connection::Call {
    Reply reply;
    Deadline deadline;
    bool blocks = false;       ///< A thread waits for the reply.
    std::uint32_t serial = 0;  ///< Of an event's call that the bus library does not know.
    Connection* connection = nullptr;
    std::list<std::unique_ptr<Call>>::iterator at = {};
};

Result<std::unique_ptr<Connection>> Connection::start(platform::UniqueDescriptor socket,
                                                      std::span<const Export> exports, ConnectOptions options,
                                                      const Deadline& deadline) {
    auto wake = std::make_shared<platform::UniqueDescriptor>(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!*wake) return systemError("cannot make an event descriptor", errno);
    std::unique_ptr<Connection> connection(
        new Connection(std::move(socket), std::move(wake), std::move(options)));
    if (const Status opened = connection->open(exports); !opened) return opened.error();
    if (const Status greeted = connection->greet(deadline); !greeted) return greeted.error();
    auto thread = platform::startThread("quorvane-bus", [raw = connection.get()] { raw->run(); });
    if (!thread) return systemError("cannot start a thread", EAGAIN);
    connection->_thread = std::move(*thread);
    return connection;
}

Connection::Connection(platform::UniqueDescriptor socket, std::shared_ptr<platform::UniqueDescriptor> wake,
                       ConnectOptions options)
    : _wake(std::move(wake)),
      _callbacks(CallbackQueue::create(std::move(options.executor), _wake)),
      _disconnected(std::move(options.disconnected)),
      _socket(std::move(socket)) {}

Connection::~Connection() {
    close(Timeout::zero());
}

Status Connection::open(std::span<const Export> exports) {
    const MutexLock lock(_mutex);
    platform::UniqueDescriptor ofBus(::fcntl(_socket.get(), F_DUPFD_CLOEXEC, 3));
    if (!ofBus) return systemError("cannot duplicate the socket", errno);
    int result = ::sd_bus_new(&_bus);
    if (result >= 0) result = ::sd_bus_set_fd(_bus, ofBus.get(), ofBus.get());
    if (result < 0) return systemError("cannot open the bus", result);
    ofBus.release();
    result = ::sd_bus_negotiate_fds(_bus, 1);
    for (const Export& each : exports)
        if (result >= 0)
            result = ::sd_bus_add_object_vtable(_bus, nullptr, kQuorvaneObjectPath, each.interface,
                                                each.vtable, each.object);
    if (result >= 0) result = ::sd_bus_add_filter(_bus, nullptr, &takeEventReply, this);
    if (result < 0) return systemError("cannot open the bus", result);
    // sd_bus_start() reads from the socket, so a peer that does not speak D-Bus can fail it.
    if (result = ::sd_bus_start(_bus); result < 0) return noDaemonError(result);
    ::setsockopt(_socket.get(), SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
    return std::monostate{};
}

/// Pings the daemon, for two reasons: to know that something answers, and because a descriptor in the first
/// message after authentication can be lost, so that message carries none. Not with sd_bus_call(): its
/// timeout does not cover authentication.
Status Connection::greet(const Deadline& deadline) {
    const MutexLock lock(_mutex);
    std::optional<int> outcome;
    const auto take = [](sd_bus_message* answer, void* outcome, sd_bus_error*) {
        *static_cast<std::optional<int>*>(outcome) = ::sd_bus_message_get_errno(answer);
        return 1;
    };
    int result = ::sd_bus_call_method_async(_bus, nullptr, nullptr, kQuorvaneObjectPath,
                                            "org.freedesktop.DBus.Peer", "Ping", take, &outcome, nullptr);
    while (result >= 0 && !outcome) {
        if (result = ::sd_bus_process(_bus, nullptr); result != 0) continue;
        pollfd descriptor{_socket.get(), static_cast<short>(::sd_bus_get_events(_bus)), 0};
        if (::poll(&descriptor, 1, millisecondsUntil(deadline)) == 0)
            return Error{ErrorCode::TimedOut, "the daemon did not answer in time"};
    }
    if (result >= 0) result = -*outcome;
    if (result < 0) return noDaemonError(result);
    return std::monostate{};
}

Status Connection::send(const EventView& event, WhenFull whenFull) {
    const MutexLock lock(_mutex);
    if (whenFull == WhenFull::Fail && !_lost && isFull(false))
        return Error{ErrorCode::WouldBlock, "the daemon does not keep up"};
    if (Status room = waitForRoom(nullptr); !room) return room;
    if (const int result = _eventCall.write(event); result < 0) return encodingError(result);
    const bool written = writeDirectly(_eventCall.bytes());
    _eventCall.trim();
    if (written) return std::monostate{};
    return post(
        kSendMessage, [&event](sd_bus_message* message) { return appendMessage(message, event); }, nullptr);
}

Status Connection::call(const EventView& event, Reply reply, Timeout timeout) {
    auto call = std::make_unique<Call>();
    call->reply = std::move(reply);
    call->deadline = deadlineAfter(timeout);
    const MutexLock lock(_mutex);
    if (Status room = waitForRoom(call.get()); !room) return room;
    call->serial = nextEventSerial();
    if (const int result = _eventCall.write(event, call->serial); result < 0) return encodingError(result);
    Call& kept = keep(std::move(call));
    const bool written = writeDirectly(_eventCall.bytes());
    _eventCall.trim();
    if (written) {
        _eventExpiry = std::min(_eventExpiry, pointOf(kept.deadline));
        wakeIfNeeded();
        return std::monostate{};
    }
    call = std::move(*kept.at);
    _calls.erase(call->at);
    call->serial = 0;
    return post(
        kSendMessage, [&event](sd_bus_message* message) { return appendMessage(message, event); },
        std::move(call));
}

/// In the upper half, which the bus library's own, counted from 1, do not reach.
std::uint32_t Connection::nextEventSerial() {
    constexpr std::uint32_t first = 1u << 31;
    _eventSerial = std::max(first, (_eventSerial + 1) % EventCall::kUnanswered);
    return _eventSerial;
}

Connection::Call& Connection::keep(std::unique_ptr<Call> call) {
    Call& kept = *call;
    kept.connection = this;
    kept.at = _calls.insert(_calls.end(), std::move(call));
    return kept;
}

/// Past the bus library, which has nothing to write itself. False when the socket took nothing.
bool Connection::writeDirectly(std::span<const std::uint8_t> message) {
    if (message.size() > kWholeBytes) return false;
    const ssize_t size = ::send(_socket.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    assert((size < 0 || static_cast<std::size_t>(size) == message.size()) && "half a message");
    return size > 0;
}

Status Connection::call(const Method& method, const Encoder& encode, Reply reply, Timeout timeout) {
    auto call = std::make_unique<Call>();
    call->reply = std::move(reply);
    call->deadline = deadlineAfter(timeout);
    return submit(method, encode, std::move(call));
}

Status Connection::callAndWait(const Method& method, const Encoder& encode, const Decoder& decode,
                               Timeout timeout) {
    if (isOwnThread()) return wouldDeadlock();
    struct Answer {
        std::atomic<int> here = 0;  // An int, so that wait() is a futex without a detour.
        Status status = std::monostate{};
    };
    const auto answer = std::make_shared<Answer>();
    auto call = std::make_unique<Call>();
    call->deadline = deadlineAfter(timeout);
    call->blocks = true;
    call->reply = [answer, &decode](const Result<sd_bus_message*>& reply) {
        if (!reply)
            answer->status = reply.error();
        else if (decode(*reply) < 0)
            answer->status = Error{ErrorCode::Refused, "the daemon's answer is malformed"};
        answer->here = 1;
        answer->here.notify_one();
    };
    if (Status sent = submit(method, encode, std::move(call)); !sent) return sent;
    answer->here.wait(0);
    return std::move(answer->status);
}

Status Connection::submit(const Method& method, const Encoder& encode, std::unique_ptr<Call> call) {
    const MutexLock lock(_mutex);
    if (Status room = waitForRoom(call.get()); !room) return room;
    return post(method, encode, std::move(call));
}

Status Connection::post(const Method& method, const Encoder& encode, std::unique_ptr<Call> call) {
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_method_call(_bus, &raw, nullptr, kQuorvaneObjectPath, method.interface,
                                                  method.name);
    const platform::BusMessage message(raw);
    if (result < 0) return sendingError(result);
    if (result = encode(raw); result < 0) return encodingError(result);
    if (result = call != nullptr ? sendCall(raw, std::move(call)) : sendUnanswered(raw); result < 0)
        return sendingError(result);
    wakeIfNeeded();
    return std::monostate{};
}

Status Connection::waitForRoom(const Call* call) {
    const bool answered = call != nullptr;
    const Deadline deadline = answered ? call->deadline : std::nullopt;
    while (!_lost && isFull(answered)) {
        if (isOwnThread()) return wouldDeadlock();
        if (deadline && std::chrono::steady_clock::now() >= *deadline)
            return Error{ErrorCode::TimedOut, "the daemon did not take the message in time"};
        ++_roomWaiters;
        ++_blocked;
        wakeIfNeeded();
        if (hasQueuedWrites())
            waitOn(_roomChanged, deadline);
        else
            waitOn(_fewerCalls, sooner(deadline, deadlineAfter(kLookAgain)));
        --_roomWaiters;
        --_blocked;
    }
    if (_lost) return *_lost;
    return std::monostate{};
}

void Connection::waitOn(std::condition_variable_any& change, const Deadline& deadline) {
    if (deadline)
        change.wait_until(_mutex, *deadline);
    else
        change.wait(_mutex);
}

void Connection::wakeWaiters() {
    if (_roomWaiters == 0) return;
    if (_lost || !hasQueuedWrites()) _roomChanged.notify_all();
    if (_lost || _calls.size() <= kFewCalls) _fewerCalls.notify_all();
}

bool Connection::isFull(bool answered) const {
    return hasQueuedWrites() || (answered && _calls.size() >= kUnansweredCalls);
}

int Connection::sendUnanswered(sd_bus_message* message) {
    const int result = ::sd_bus_message_set_expect_reply(message, 0);
    return result < 0 ? result : ::sd_bus_send(_bus, message, nullptr);
}

int Connection::sendCall(sd_bus_message* message, std::unique_ptr<Call> call) {
    Call& stored = keep(std::move(call));
    const int result =
        ::sd_bus_call_async(_bus, nullptr, message, &takeReply, &stored, microsecondsUntil(stored.deadline));
    if (result < 0)
        _calls.erase(stored.at);
    else if (stored.blocks)
        ++_blocked;
    return result;
}

int Connection::takeReply(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto& call = *static_cast<Call*>(userdata);
    Connection& connection = *call.connection;
    const bool refused = ::sd_bus_message_is_method_error(message, nullptr) > 0;
    connection.finish(call, refused ? Result<sd_bus_message*>(connection.errorOf(message)) : message);
    return 1;
}

/// Answers come in the order of the calls, so the call is among the first.
int Connection::takeEventReply(sd_bus_message* message, void* self, sd_bus_error*) {
    const auto& calls = static_cast<Connection*>(self)->_calls;
    std::uint64_t serial = 0;
    if (::sd_bus_message_get_reply_cookie(message, &serial) < 0) return 0;
    const auto found =
        std::ranges::find_if(calls, [serial](const auto& call) { return call->serial == serial; });
    return found != calls.end() ? takeReply(message, found->get(), nullptr) : 0;
}

void Connection::expireEventCalls() {
    const std::uint64_t now = pointOf(std::chrono::steady_clock::now());
    if (now < _eventExpiry) return;
    _eventExpiry = UINT64_MAX;
    for (auto at = _calls.begin(); at != _calls.end();) {
        Call& call = **at++;
        if (call.serial == 0) continue;
        const std::uint64_t expiry = pointOf(call.deadline);
        if (expiry <= now)
            finish(call, Error{ErrorCode::TimedOut, "the daemon did not answer in time"});
        else
            _eventExpiry = std::min(_eventExpiry, expiry);
    }
}

std::uint64_t Connection::nextExpiry() const {
    std::uint64_t until = UINT64_MAX;
    ::sd_bus_get_timeout(_bus, &until);
    return std::min(until, _eventExpiry);
}

void Connection::finish(Call& call, const Result<sd_bus_message*>& answer) {
    const std::unique_ptr<Call> held = std::move(*call.at);
    _calls.erase(held->at);
    if (held->blocks) --_blocked;
    held->reply(answer);
}

Error Connection::errorOf(sd_bus_message* message) const {
    const sd_bus_error* error = ::sd_bus_message_get_error(message);
    // sd-bus makes up this error itself: when a call times out, and for every open call when the connection
    // ends.
    if (::sd_bus_error_has_name(error, SD_BUS_ERROR_NO_REPLY) > 0) {
        if (::sd_bus_is_open(_bus) <= 0)
            return {ErrorCode::Disconnected, "the connection ended before the daemon's answer"};
        return {ErrorCode::TimedOut, "the daemon did not answer in time"};
    }
    return {ErrorCode::Refused, std::string(error->message != nullptr ? error->message : error->name)};
}

Error Connection::sendingError(int error) const {
    if (::sd_bus_is_open(_bus) <= 0) return {ErrorCode::Disconnected, "the connection is lost"};
    return systemError("cannot send", error);
}

}  // namespace quorvane::client
