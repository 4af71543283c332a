#pragma once

#include <quorvane/Result.h>
#include <quorvane/Session.h>
#include <quorvane/Value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace quorvane {

/// Longest wait for an answer, counted from the call. More than a hundred years have no end.
using Timeout = std::chrono::milliseconds;
inline constexpr Timeout kNoTimeout = Timeout::max();

// What calls wait unless told otherwise. A daemon that is well answers within these; one that is stopped or
// hangs must not hold its clients for ever.

/// The daemon answers at once, but for up to 10 s in which it waits for a server that does not keep up.
inline constexpr Timeout kAnswerTimeout = std::chrono::seconds(30);
/// A download may take 15 s, and others' downloads come before it.
inline constexpr Timeout kStartTimeout = std::chrono::seconds(90);
/// A large file takes its time. The daemon itself gives an upload up that stands still for a minute.
inline constexpr Timeout kUploadTimeout = std::chrono::hours(1);

/// Runs the function given soon, on a thread or loop of its choosing, and returns at once: it must not run
/// the function itself. Functions must be run one after another in the order given for events to keep their
/// order.
using Executor = std::function<void(std::function<void()>)>;

template <typename T>
using Completion = std::function<void(Result<T>)>;

struct ConnectOptions {
    /// Empty for /run/quorvane/com.velmora.quorvaned in the folder that the environment variable
    /// QUORVANE_ROOT names.
    std::string socketPath = {};
    /// Longest wait for the daemon to answer.
    Timeout timeout = std::chrono::seconds(30);
    /// Runs completions, the aggregation block and the disconnect handler. Empty for a thread of the
    /// library's own, started when there is something to run.
    Executor executor = {};
    /// Told once when the connection is lost; not when the client is destroyed.
    std::function<void(Error)> disconnected = {};
    /// Longest wait of the destructor for the daemon to take what was sent.
    Timeout closeTimeout = std::chrono::seconds(5);
};

/// One session with the reporting daemon over a connection of its own.
///
/// Every operation may be called from any thread, also from a callback; moving and destroying may not run
/// beside other operations. Calls from one thread reach the daemon in their order. When the daemon does not
/// keep up, senders wait; nothing piles up in memory and nothing is dropped. A lost connection gives the
/// error Disconnected from then on: reconnecting is the caller's. No operation throws, and no callback may.
///
/// After fork(2) the child must not use or destroy a client of its parent's; execve(2) closes it.
class Client {
  public:
    /// Connects and waits until the daemon answers.
    static Result<Client> connect(ConnectOptions options = {});

    Client(Client&& other) noexcept;
    Client& operator=(Client&& other) noexcept;
    /// Waits until the daemon has taken everything sent, but no longer than the close timeout, then closes.
    /// Callbacks that have not begun are dropped; one that runs is waited for, unless it is the caller.
    ~Client();

    /// Configures the session; comes before start(). A block makes the client an aggregating one.
    Status setSessionInfo(const SessionInfo& sessionInfo,
                          const std::optional<UserInfo>& userInfo = std::nullopt,
                          const std::vector<std::string>& frameworksToCheck = {},
                          AggregationBlock aggregationBlock = {}, Timeout timeout = kAnswerTimeout);

    /// Makes the daemon set up the session's backends; it may download for up to 15 s.
    Result<ReportingStates> start(Timeout timeout = kStartTimeout);

    /// Gives or changes the user info, or takes it away with std::nullopt, and asks for the states.
    Result<ReportingStates> fetchStates(const std::optional<UserInfo>& userInfo,
                                        Timeout timeout = kAnswerTimeout);

    /// Where the session's events can be looked at, or "URL not available".
    Result<std::string> displayURL(Timeout timeout = kAnswerTimeout);

    /// Sends an event and waits for the daemon's answer to it. What JSON cannot carry is dropped from the
    /// payload on its way to an HTTPS server: arrays, dictionaries and data; a number that is not finite
    /// costs the whole message.
    Result<Answer> send(const Event& event, Timeout timeout = kAnswerTimeout);
    /// Sends an event; the completion gets the answer on the executor, exactly once unless the client is
    /// destroyed before. Waits while 1,024 calls are unanswered. With an error the completion does not run.
    /// Completions are not bounded as they wait for the executor: it must keep up with the answers.
    Status sendAsync(const Event& event, Completion<Answer> completion, Timeout timeout = kAnswerTimeout);
    /// Sends an event that is not answered. Success means that it is on its way.
    Status sendAndForget(const Event& event);
    /// The same, with a payload that lies elsewhere; null for none.
    Status sendAndForget(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                         std::uint32_t flag = 0);
    /// The same, but never waits: WouldBlock when the daemon does not keep up, and the event is not sent.
    Status trySend(const Event& event);
    Status trySend(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                   std::uint32_t flag = 0);

    /// Makes the backends post what they hold back.
    Result<Answer> flush(Timeout timeout = kAnswerTimeout);

    /// Sends one event through backends made for it alone: "finished", also when they have no use for it, or
    /// "storebag not available". This client's session takes on the session info and the user info, but keeps
    /// its backends. The event's flag is not used. The daemon never answers when the session info lacks an
    /// identifier.
    Result<std::string> sendMessageWithSessionInfo(const SessionInfo& sessionInfo,
                                                   const std::optional<UserInfo>& userInfo,
                                                   const Event& event, Timeout timeout = kStartTimeout);
    Status sendMessageWithSessionInfoAsync(const SessionInfo& sessionInfo,
                                           const std::optional<UserInfo>& userInfo, const Event& event,
                                           Completion<std::string> completion,
                                           Timeout timeout = kStartTimeout);

    /// Lends the regular file at the path to the daemon, which uploads it and answers whether a backend took
    /// it. When a server asks for it, the file is removed afterwards, provided the path still names it; so it
    /// may be, while the client lives, after a time-out. The progress function, if any, runs on the calling
    /// thread.
    Result<bool> uploadFile(const std::string& path,
                            const std::function<void(const UploadProgress&)>& progress = nullptr,
                            Timeout timeout = kUploadTimeout);

    /// Uploads log data; answers whether a backend took it.
    Result<bool> uploadLogData(const Array& logData, Timeout timeout = kUploadTimeout);

    /// Events for the aggregation block that were dropped. The daemon is not read from while 4 MiB wait for
    /// the executor; only when a call waits for its answer meanwhile is it read on, and 4 MiB later dropped.
    std::uint64_t droppedEvents() const;

  private:
    class Implementation;
    explicit Client(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> _implementation;
};

}  // namespace quorvane

#pragma GCC visibility pop
