#pragma once

#include "platform/value/Value.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HttpsServer.h"

#include <quorvane/Client.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::tools {
class SigningKey;
}

namespace quorvane::test {

/// A folder that is the root of a device with everything a daemon needs, an HTTPS server that hands out
/// storebags and takes posts, and the daemon itself, as its own process. The device is in the US, in the
/// release environment, and its user consents. Throws std::runtime_error when it cannot be set up.
class DaemonFixture {
  public:
    using Environment = std::map<std::string, std::optional<std::string>>;

    DaemonFixture();
    /// Kills a daemon that still runs. Aborts with the daemon's log when a sanitizer complained of it, or
    /// when it ended though the test neither signalled it nor waited for its end.
    ~DaemonFixture();
    DaemonFixture(const DaemonFixture&) = delete;
    DaemonFixture& operator=(const DaemonFixture&) = delete;

    const std::filesystem::path& root() const { return _root; }
    std::string socketPath() const;
    void write(const std::string& path, const std::string& text) const;
    HttpsServer& server() { return *_server; }

    /// What clients get from now on: the section, signed. The daemon keeps what it has fetched.
    ///   name  of the storebag that this is; empty for all that have none of their own
    void serveStorebag(const Dictionary& section, const std::string& name = "");
    /// How posts are answered from now on; with status 200 at first.
    void answerPosts(HttpsServer::Handler answer);

    /// A section with one HTTPS post backend, which posts to this server; the keys given are put into its one
    /// client entry.
    Dictionary httpPostSection(const Dictionary& clientEntry = {}) const;

    /// Starts the daemon, changed by the environment, and does not wait.
    ChildProcess& launch(const Environment& environment = {});
    /// Launches it and waits until it listens.
    ChildProcess& start(const Environment& environment = {});
    ChildProcess& daemon() { return *_daemon; }

    /// A client of the daemon.
    Client connect(ConnectOptions options = {}) const;
    /// A client whose session is configured and started.
    Client startedClient(const SessionInfo& sessionInfo, const std::optional<UserInfo>& userInfo = {}) const;

    /// The records of all events posted so far, in the order of their arrival.
    std::vector<Dictionary> postedEvents() const;
    /// Those of them that bear the category.
    std::vector<Dictionary> postedEvents(std::uint16_t category) const;
    /// Waits until so many events of the category have been posted; whether they have.
    bool waitForEvents(std::uint16_t category, std::size_t count) const;

    /// What the daemon counts; nothing when it does not answer.
    std::optional<Dictionary> statistics() const;

    /// Waits until the daemon's log holds the line, counted from its start; whether it does.
    bool logs(std::string_view text) { return _daemon->waitForErrors(text); }

  private:
    ServerAnswer answerTo(const ServerRequest& request);
    void endDaemon();
    /// Aborts when events that the daemon accepted are nowhere.
    void expectBalancedLedger() const;

    std::filesystem::path _root;
    std::unique_ptr<tools::SigningKey> _key;
    std::unique_ptr<HttpsServer> _server;
    std::unique_ptr<ChildProcess> _daemon;
    std::mutex _mutex;
    // Guarded by the mutex.
    std::map<std::string, std::string, std::less<>> _storebags;  ///< By name.
    HttpsServer::Handler _posts = [](const ServerRequest&) { return ServerAnswer(); };
};

/// How long a test waits for something that should happen soon; sanitizers on a busy machine are slow.
inline constexpr std::chrono::seconds kSoon{30};

/// Waits until the condition holds; false when it does not in time.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = kSoon);

}  // namespace quorvane::test
