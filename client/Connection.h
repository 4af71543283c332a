#pragma once

#include "client/CallbackQueue.h"
#include "client/Deadline.h"
#include "client/EventCall.h"
#include "client/EventView.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"

#include <quorvane/Client.h>

#include <systemd/sd-bus.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace quorvane::client {

/// The client's end of a peer-to-peer D-Bus connection. Callers encode and write their messages themselves,
/// under the lock; the connection's thread reads, and writes what the socket did not take at once.
/// Thread-safe.
class Connection {
  public:
    struct Method {
        const char* interface;
        const char* name;
    };
    /// Appends a call's arguments; a negative errno value when they cannot be sent.
    using Encoder = std::function<int(sd_bus_message*)>;
    /// Takes an answer's arguments; a negative errno value when they are malformed.
    using Decoder = std::function<int(sd_bus_message*)>;
    /// Takes the answer to a call, once, on the connection's thread under its lock: it must not block.
    using Reply = std::function<void(const Result<sd_bus_message*>&)>;
    struct Export {
        const char* interface;
        const sd_bus_vtable* vtable;
        void* object;  ///< Outlives the connection. Its handlers run as replies do.
    };

    /// Takes over a connected socket and waits for the other end to answer, until the deadline.
    static Result<std::unique_ptr<Connection>> start(platform::UniqueDescriptor socket,
                                                     std::span<const Export> exports, ConnectOptions options,
                                                     const Deadline& deadline);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    enum class WhenFull { Wait, Fail };
    /// Sends an event in a call that is not answered. While the socket takes no more, it waits or fails.
    Status send(const EventView& event, WhenFull whenFull);
    /// Sends an event in a call; the reply runs unless an error is returned.
    Status call(const EventView& event, Reply reply, Timeout timeout);
    /// Sends a call; the reply runs unless an error is returned.
    Status call(const Method& method, const Encoder& encode, Reply reply, Timeout timeout);
    /// Sends a call and waits for its answer.
    Status callAndWait(const Method& method, const Encoder& encode, const Decoder& decode, Timeout timeout);

    /// Hands the callback to the executor once the lock is released. From replies and exported objects only.
    void deliverLater(CallbackQueue::Callback callback);
    /// Whether so much waits for the executor that a further event has to be dropped.
    bool isOverfull() const;

    /// Waits up to the limit until the daemon has read everything sent, then ends the connection and all
    /// callbacks.
    void close(Timeout limit);

  private:
    struct Call;
    /// What the connection's thread sleeps on, or will once the lock is released.
    struct Awaited {
        bool reading = true;
        bool writing = false;
        bool paused = false;               ///< Not reading for a moment, so that more answers come.
        std::uint64_t until = UINT64_MAX;  ///< Microseconds of CLOCK_MONOTONIC.
    };
    struct Next {
        bool over;
        bool more;  ///< There is more to do before waiting.
        Awaited awaited;
    };

    Connection(platform::UniqueDescriptor socket, std::shared_ptr<platform::UniqueDescriptor> wake,
               ConnectOptions options);
    Status open(std::span<const Export> exports);
    Status greet(const Deadline& deadline);

    Status submit(const Method& method, const Encoder& encode, std::unique_ptr<Call> call);
    Status post(const Method& method, const Encoder& encode, std::unique_ptr<Call> call) REQUIRES(_mutex);
    bool writeDirectly(std::span<const std::uint8_t> message) REQUIRES(_mutex);
    std::uint32_t nextEventSerial() REQUIRES(_mutex);
    Call& keep(std::unique_ptr<Call> call) REQUIRES(_mutex);
    Status waitForRoom(const Call* call) REQUIRES(_mutex);
    void waitOn(std::condition_variable_any& change, const Deadline& deadline) REQUIRES(_mutex);
    void wakeWaiters() REQUIRES(_mutex);
    bool waitsForAnswer() const REQUIRES(_mutex) { return _blocked > _roomWaiters; }
    bool isFull(bool answered) const REQUIRES(_mutex);
    int sendUnanswered(sd_bus_message* message) REQUIRES(_mutex);
    int sendCall(sd_bus_message* message, std::unique_ptr<Call> call) REQUIRES(_mutex);

    /// Called by sd-bus from process(), so under the lock, which the analysis cannot see.
    static int takeReply(sd_bus_message* message, void* call, sd_bus_error* error)
        QUORVANE_TSA(no_thread_safety_analysis);
    /// The same for answers to calls that were written past the bus library, which does not know them.
    static int takeEventReply(sd_bus_message* message, void* connection, sd_bus_error* error)
        QUORVANE_TSA(no_thread_safety_analysis);
    void expireEventCalls() REQUIRES(_mutex);
    /// When the next call expires, or a time before; in microseconds of CLOCK_MONOTONIC, UINT64_MAX for none.
    std::uint64_t nextExpiry() const REQUIRES(_mutex);
    void finish(Call& call, const Result<sd_bus_message*>& answer) REQUIRES(_mutex);
    Error errorOf(sd_bus_message* message) const REQUIRES(_mutex);
    Error sendingError(int error) const REQUIRES(_mutex);

    // The connection's thread: ConnectionThread.cpp.
    bool isOwnThread() const;
    void run();
    Next process();
    void awaitNext(bool readAll) REQUIRES(_mutex);
    void lose(int error) REQUIRES(_mutex);
    void end(Error error) REQUIRES(_mutex);
    void waitFor(const Awaited& awaited) const;
    bool mayRead() const REQUIRES(_mutex);
    bool hasQueuedWrites() const REQUIRES(_mutex);
    void wakeIfNeeded() const REQUIRES(_mutex);
    void wake() const;
    void drainUntil(const Deadline& deadline) const;

    const std::shared_ptr<platform::UniqueDescriptor> _wake;
    const std::shared_ptr<CallbackQueue> _callbacks;
    std::function<void(Error)> _disconnected;
    platform::UniqueDescriptor _socket;  ///< A second descriptor of the bus's socket.
    std::thread _thread;

    platform::Mutex _mutex;
    std::condition_variable_any _roomChanged, _fewerCalls;
    sd_bus* _bus GUARDED_BY(_mutex) = nullptr;
    std::optional<Error> _lost GUARDED_BY(_mutex);
    bool _stopping GUARDED_BY(_mutex) = false;
    std::list<std::unique_ptr<Call>> _calls GUARDED_BY(_mutex);  ///< Not yet answered.
    std::size_t _blocked GUARDED_BY(_mutex) = 0;  ///< Threads that wait for an answer or for room.
    std::size_t _roomWaiters GUARDED_BY(_mutex) = 0;
    EventCall _eventCall GUARDED_BY(_mutex);
    std::uint32_t _eventSerial GUARDED_BY(_mutex) = 0;
    std::uint64_t _eventExpiry GUARDED_BY(_mutex) = UINT64_MAX;
    // Of the connection's thread only: callbacks to deliver once the lock is released.
    std::vector<CallbackQueue::Callback> _ready;
    std::size_t _readyBytes = 0;
    Awaited _awaited GUARDED_BY(_mutex);
};

}  // namespace quorvane::client
