#pragma once

#include "platform/base/MemoryBudget.h"
#include "platform/http/HttpSession.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace quorvane::platform {

/// A request on its way through the session, with all that belongs to it.
struct HttpTask {
    HttpRequest request;
    HttpCompletion completion;
    std::string server;
    bool isAwaited = false;  ///< A thread does nothing else until the request is done.
    std::chrono::steady_clock::time_point since = std::chrono::steady_clock::now();
    /// What it takes of the room for posts, if it counts there.
    std::optional<MemoryBudget::Reservation> room = {};
    std::uint64_t turn = 0;  ///< Among those of its order key; the queue's own.
};

/// The posts that wait, and which is next. They stand in two lines, one behind the other: those of one order
/// key until the one before them lets them go, then those to one server until one of its places is free. So a
/// server that stalls keeps no other waiting. Belongs to one thread.
class HttpQueue {
  public:
    using Time = std::chrono::steady_clock::time_point;
    /// Where a task stands, for what is told of it once the task itself is on its way.
    struct Place {
        std::string server;
        const void* orderKey;
        bool isBarrier;
        std::uint64_t turn;
    };

    void add(HttpTask task);

    /// The next task, to which its server's place now belongs; nothing while none may start.
    std::optional<HttpTask> takeNext();
    static Place placeOf(const HttpTask& task);
    /// The task has been sent: the next of its order may go from that time on.
    void wasSent(const Place& place, Time nextMayGo);
    /// The task is answered, has failed or is dropped: the next of its order may go.
    void isDone(const Place& place);
    /// Its server's place is free again.
    void leave(const Place& place);

    /// Lets those go whose time has come.
    void letGo(Time now);
    /// When to call that again.
    std::optional<Time> nextLetGo() const;

  private:
    struct Order {
        std::uint64_t turn = 0;  ///< Whose the order is: the next waits until that one lets it go.
        std::deque<HttpTask> waiting;
    };
    struct Server {
        std::size_t active = 0;
        std::deque<HttpTask> waiting;
    };
    struct Sent {
        const void* orderKey;
        std::uint64_t turn;
    };

    void letNextGo(const void* orderKey, std::uint64_t turn);
    void startTurn(Order& order, HttpTask task);

    std::map<const void*, Order> _orders;
    std::map<std::string, Server> _servers;  ///< Those for which something waits or is under way.
    std::multimap<Time, Sent> _sent;         ///< By the time at which the next one may go.
    std::uint64_t _lastTurn = 0;
};

}  // namespace quorvane::platform
