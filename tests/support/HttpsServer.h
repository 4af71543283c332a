#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane::test {

/// A request as the server got it. A compressed body is expanded already; its headers stand as they came.
struct ServerRequest {
    std::string method;
    std::string target;  ///< Path and query as they came, not decoded.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    int clientPort = 0;  ///< One a connection.

    /// The values of the headers of that name, any case.
    std::vector<std::string> headerValues(std::string_view name) const;
    /// The first of them; "absent" for none.
    std::string header(std::string_view name) const;
};

struct ServerAnswer {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

/// An HTTPS server on a free port of 127.0.0.1 with a certificate of its own. Takes GET, POST and PUT of any
/// path and keeps what it got. Everything is thread-safe.
class HttpsServer {
  public:
    /// Runs on a thread of the server, for several requests at once.
    using Handler = std::function<ServerAnswer(const ServerRequest&)>;

    /// Starts with empty answers of status 200, and trusted in the root: its certificate is put into
    /// ROOT/etc/quorvane/trust/. Without a root nobody is told of the certificate.
    explicit HttpsServer(const std::filesystem::path& root = {});
    ~HttpsServer();
    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    int port() const;
    /// "https://127.0.0.1:PORT" and the path, which starts with a slash.
    std::string url(std::string_view path = "") const;

    /// What answers from the next request on.
    void setHandler(Handler handler);
    void answerWith(ServerAnswer answer);

    /// All requests so far, each kept before its handler runs.
    std::vector<ServerRequest> requests() const;
    std::size_t requestCount() const;
    void forgetRequests();

    /// Waits until so many requests have come, counted from the last forgetRequests(); whether they have.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

  private:
    struct Held;
    std::unique_ptr<Held> _held;
};

}  // namespace quorvane::test
