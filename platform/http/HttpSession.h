#pragma once

#include "platform/value/Value.h"

#include <chrono>
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
    Data body;
    /// Bound on the whole request; zero means the session's default: at most 60 s without progress.
    std::chrono::seconds timeout{0};
    /// An answer's body larger than this many bytes ends the request with an error.
    std::size_t maximumResponseBytes = 16u << 20;
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
};

using HttpCompletion = std::function<void(HttpResult)>;

/// Starts a request on the process's shared HTTP session: one thread, kept-alive connections, HTTP/2 where
/// offered, TLS verified against the system's roots and /etc/quorvane/trust/*.pem, redirects not followed.
/// The completion runs once, on the session's thread (on the caller's where that thread cannot be started),
/// and must not block. While more than the bound waits to be sent, the caller waits here, so call it with no
/// lock held and not from a completion. Thread-safe.
void startDataTask(HttpRequest request, HttpCompletion completion);

/// Starts a request and waits for its result. The body, of which a waiting caller has but one, counts for no
/// bound: a large one that takes long holds up nobody else.
HttpResult performDataTask(HttpRequest request);

/// The bound of what waits, 16 MiB by default; each request counts its body and 1 KiB. A single larger one
/// still goes when nothing waits.
void setHttpWaitingBytesBound(std::size_t bytes);

/// Waits until every started request has completed, at most so long; whether it got there.
bool drainHttpSession(std::chrono::milliseconds atMost);

}  // namespace quorvane::platform
