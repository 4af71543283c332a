#pragma once

#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/base/UserAccount.h"
#include "platform/bus/BusAuthentication.h"
#include "platform/bus/BusHeader.h"
#include "platform/bus/BusInput.h"
#include "platform/bus/BusMessage.h"
#include "platform/value/Value.h"

#include <systemd/sd-bus.h>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::platform {

/// The daemon's end of one client's peer-to-peer D-Bus connection, served by a thread of its own: its calls
/// run there one after another.
class BusConnection : public std::enable_shared_from_this<BusConnection> {
  public:
    struct Peer {
        pid_t pid = 0;
        uid_t uid = 0;
        bool isOfOwnGroup = false;  ///< It belongs to the group that this process runs as.
    };
    using Handler = std::function<void()>;

    /// Takes over an accepted socket; null when the bus library refuses it.
    static std::shared_ptr<BusConnection> initWithDescriptor(UniqueDescriptor socket, Peer peer);
    ~BusConnection();
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// What calls reach, set before resume(): the vtable's handlers are called with the object. The
    /// connection owns a share of the object and drops it after the invalidation handler has run. False when
    /// the bus library refuses the vtable.
    bool setExportedObject(const char* path, const char* interface, const sd_bus_vtable* vtable,
                           std::shared_ptr<void> object);
    /// What a call that brings a file reaches, set before resume(). No other call may bring any: it ends the
    /// connection, and the bus library refuses descriptors altogether. The call's arguments cannot be read.
    ///   method  must live as long as the connection
    struct Method {
        std::string_view path, interface, member;
    };
    using FileHandler = std::function<void(sd_bus_message* call, UniqueDescriptor file)>;
    void setFileHandler(Method method, FileHandler handler);
    /// What calls with one a{sv} reach past the bus library, which takes several times as long to read one,
    /// set before resume(). Some still come by way of the vtable: BusBody.h. The handler throws nothing.
    ///   method  must live as long as the connection
    using DictionaryHandler = std::function<void(const BusCall& call, const Dictionary& argument)>;
    void setDictionaryHandler(Method method, DictionaryHandler handler);
    /// Answers a call that has come so with one as: the text or nothing. False when it has to be answered by
    /// the bus library: the text is none for a bus or long, or something waits to be sent before it.
    bool replyWithText(const BusCall& call, const std::string* text) const;
    /// A call that has come so for the bus library, which takes its answer; its arguments cannot be read.
    /// Null when it cannot be made.
    BusMessage messageOf(const BusCall& call) const;
    /// Runs, again and again while it says that there is more to do, whenever the client asks for nothing; on
    /// the connection's thread.
    void setIdleHandler(std::function<bool()> handler) { _idleHandler = std::move(handler); }
    /// Runs when the connection ends in anything but an orderly close, before the invalidation handler.
    void setInterruptionHandler(Handler handler) { _interruptionHandler = std::move(handler); }
    /// Runs once when the connection has ended, on the connection's thread.
    void setInvalidationHandler(Handler handler) { _invalidationHandler = std::move(handler); }

    /// How long the client may read nothing while so much waits for it that it is not served; then it is
    /// left. Set before resume().
    void setPatience(std::chrono::milliseconds patience) { _patience = patience; }

    /// Starts serving; the handler given runs when everything of the connection is gone. False when no thread
    /// can be started: the connection has ended then, and only that handler does not run.
    bool resume(Handler ended);

    /// Ends the connection once what its client has sent so far is served. A client that reads is told what
    /// waits for it, also what its objects send as they go, for a second at most. From any thread, also while
    /// it waits for its client to read.
    void invalidate();

    /// Runs the function with the bus, so that it can send: at once when the connection's thread calls, so
    /// that what it sends precedes the answer; else soon, on that thread. A call that still waits when the
    /// connection ends is run with null. From any thread; never blocks. False when the connection has ended,
    /// when `bytes` more than wait already would go past the bound, past which one alone does not go, however
    /// large, or when the user's account has no room for them.
    bool queueCall(std::size_t bytes, std::function<void(sd_bus*)> call);

    /// Counts bytes of a reply towards the bound of what waits for the client to read. Connection's thread
    /// only.
    void noteQueuedBytes(std::size_t bytes) { _replyBytes += bytes; }

    const Peer& peer() const { return _peer; }
    /// What the client's user makes the process hold.
    UserAccount& account() const { return *_account; }
    std::string description() const;

    /// Bound on what queueCall() lets wait, in bytes. 4 MiB.
    static constexpr std::size_t kQueuedCallBytes = 4u << 20;

  private:
    enum class Ending { Orderly, Broken };
    struct QueuedCall {
        std::size_t bytes;
        std::function<void(sd_bus*)> call;
        UserAccount::Charge charge = {};
    };
    struct Exported {
        const char* path;
        const char* interface;
        const sd_bus_vtable* vtable;
        std::shared_ptr<void> object;
    };

    BusConnection(int socket, Peer peer);
    /// A socket from which nothing ever comes, for a bus that shall write only. -1 when there is no
    /// descriptor.
    static int silentSocket();
    bool openBus(UniqueDescriptor output);
    bool exportOnBus(const Exported& exported);
    void serve();
    void finish(Ending ending);
    Ending serveUntilItEnds();
    bool workWhileIdle();
    int authenticate();
    int serveWaiting();
    void serveRest();
    int serveNext(BusInput::Next next);
    int serveFileCall();
    bool serveDictionaryCall(std::span<const std::uint8_t> message);
    BusMessage directCall(const Method& method, const BusCall& read) const;
    int writeQueued();
    int drainReplies();
    int leave();
    bool writeAllUntil(std::chrono::steady_clock::time_point end);
    bool mayKeepReplies(std::uint64_t waiting);
    int waitForWork();
    int wait(short events, std::optional<std::chrono::milliseconds> longest);
    void runQueuedCalls();
    void run(const QueuedCall& queued);
    Ending endingOfSocket() const;

    const Peer _peer;
    const std::shared_ptr<UserAccount> _account;
    const int _socket;  ///< The bus owns it and writes to it, until the connection is over.
    UniqueDescriptor _wake;
    sd_bus* _bus = nullptr;  ///< Touched by the connection's thread only, once resumed.
    int _busInput = -1;      ///< The bus owns it and reads from it.
    BusAuthentication _authentication;
    BusInput _input;
    std::chrono::milliseconds _patience = std::chrono::minutes(1);
    std::size_t _replyBytes = 0;
    std::optional<UserAccount::Charge> _replyCharge;
    std::atomic<bool> _ending = false;
    bool _nothingFollows = false;  ///< The client closed or died; what it sent before may be there still.
    bool _vanished = false;        ///< The client closed without reading what it was sent, or reads no more.
    bool _servesRest = false;      ///< What is sent reaches nobody any more.
    std::vector<Exported> _exported;
    Method _fileMethod;
    FileHandler _fileHandler;
    Method _dictionaryMethod;
    DictionaryHandler _dictionaryHandler;
    Handler _interruptionHandler;
    Handler _invalidationHandler;
    std::function<bool()> _idleHandler;
    Handler _ended;

    mutable Mutex _mutex;
    std::vector<QueuedCall> _calls GUARDED_BY(_mutex);
    std::size_t _callBytes GUARDED_BY(_mutex) = 0;
    bool _over GUARDED_BY(_mutex) = false;
};

}  // namespace quorvane::platform
