#pragma once

#include "platform/value/Value.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::platform {

struct HttpHeader {
    std::string name;
    std::string value;
};

struct HttpRequest {
    std::string url;  ///< http or https; anything else completes with an error.
    std::string method = "GET";
    std::vector<HttpHeader> headers;  ///< Sent in this order. A header with CR, LF or NUL in it is an error.
    Data body;                        ///< Sent once at most, whatever becomes of the connection.
    /// Bound on the whole request; zero means what HttpLimits says.
    std::chrono::seconds timeout{0};
    /// An answer's body larger than this many bytes ends the request with an error.
    std::size_t maximumResponseBytes = 16u << 20;
    /// False: it completes when the answer's head is there, without the body.
    bool wantsBody = true;
    /// Requests of startDataTask with the same key, which is only compared, start in the order in which they
    /// were given: each when the one before it was answered, has failed, or was sent a moment
    /// (HttpLimits::orderSpacing) ago. Null: no order.
    const void* orderKey = nullptr;
    /// The next one of the same key starts only when this one has been answered or has failed.
    bool isBarrier = false;
};

struct HttpResponse {
    int statusCode = 0;
    std::vector<HttpHeader> headers;
    Data body;

    /// The value under that name, any case, of all its lines joined by commas (RFC 9110, section 5.2).
    std::optional<std::string> header(std::string_view name) const;
};

struct HttpResult {
    /// After an error, what had come until then of the status, or 0, and of the headers; no body.
    HttpResponse response = {};
    std::optional<std::string> error = {};
    /// It was never sent, since its server takes too little. Logged already, with the number of those.
    bool wasDropped = false;
};

using HttpCompletion = std::function<void(HttpResult)>;

/// Bounds of the session. "Posts" are the requests of startDataTask.
struct HttpLimits {
    /// What posts that have not completed take, with headers and 1 KiB each: for one server (a single larger
    /// one still goes when nothing else does), for all, and what each server gets however much wait for the
    /// others.
    std::size_t bytesPerServer = 16u << 20;
    std::size_t bytesInAll = 64u << 20;
    std::size_t bytesGuaranteed = 1u << 20;
    /// Servers that posts wait for at once.
    std::size_t servers = 64;
    /// A sender waits for room while something goes to the server at least so often, and no longer than
    /// waitingTime; then its post is dropped.
    std::chrono::milliseconds senderPatience{10'000};
    /// A post that has not started by then is dropped.
    std::chrono::milliseconds waitingTime{60'000};
    /// From a post's start to its answer's head, and one second more for each 16 KiB of its body.
    std::chrono::milliseconds postTime{60'000};
    /// For the rest of an answer that nobody wants; past it, or past 64 KiB, the connection is closed.
    std::chrono::milliseconds unwantedBodyTime{2'000};
    std::chrono::milliseconds orderSpacing{10};
    /// What someone waits for may make no progress for so long while it is sent, ...
    std::chrono::milliseconds standstill{60'000};
    /// ... and is answered, to the last byte, so long after it was sent.
    std::chrono::milliseconds answerTime{600'000};
};

/// Starts a request on the process's shared HTTP session: one thread, kept-alive connections, HTTP/2 where
/// offered, TLS verified against the system's roots and /etc/quorvane/trust/*.pem, redirects not followed.
/// At most eight of one server are under way at once.
/// The completion runs once, on the session's thread (on the caller's where the request is dropped at once or
/// that thread cannot be started), and must not block. While there is no room for what waits, the caller
/// waits here, so call it with no lock held and not from a completion. Thread-safe.
void startDataTask(HttpRequest request, HttpCompletion completion);

/// Starts a request at once and waits for its result. It counts for no bound of posts and holds up none: each
/// takes one caller. Its timeout, or standstill and answerTime of the limits, bound the wait. Thread-safe.
HttpResult performDataTask(HttpRequest request);

/// From now on nobody waits in performDataTask: what is under way ends, and what comes fails, with an error.
void cancelAwaitedDataTasks();

/// For what starts from now on. Thread-safe.
void setHttpLimits(const HttpLimits& limits);

/// Posts that were dropped so far.
std::uint64_t droppedDataTasks();

/// Waits until every started request has completed, at most so long; whether it got there.
bool drainHttpSession(std::chrono::milliseconds atMost);

}  // namespace quorvane::platform
