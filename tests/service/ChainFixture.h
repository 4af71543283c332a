#pragma once

#include "platform/formats/Json.h"
#include "tests/support/DaemonFixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane::test {

/// The category of the tests' own events.
inline constexpr std::uint16_t kOurs = 12;

/// Client types by what their sessions are in a chain.
enum class Place : std::uint32_t { Top = 5, Middle = 6, Bottom = 8 };

/// A client that keeps what its aggregation block gets, if it has one.
class ChainClient {
  public:
    struct Options {
        bool aggregates = false;
        bool batches = false;
        bool leavesAbruptly = false;
    };

    ChainClient(DaemonFixture& device, Place place, std::uint32_t sessionID, Options options)
        : _device(device),
          _sessionInfo{.sessionID = sessionID,
                       .clientType = static_cast<std::uint32_t>(place),
                       .batchEvent = options.batches,
                       .requireUserInfo = true},
          _aggregates(options.aggregates),
          _closeTimeout(options.leavesAbruptly ? 0 : 60) {}

    std::uint32_t sessionID() const { return _sessionInfo.sessionID.value_or(0); }

    /// Starts a session under the client name on a connection of its own, where the one before ends; whether
    /// the session reports.
    bool start(const std::string& name) {
        _client.reset();
        _client = _device.connect({.timeout = kSoon, .closeTimeout = _closeTimeout});
        introduce(name);
        return start();
    }
    /// The same again for the connection that it has.
    bool start() { return reports(_client->start()); }

    /// Tells the session's facts and names, without starting it.
    void introduce(const std::string& name) {
        EXPECT_TRUE(_client->setSessionInfo(_sessionInfo, names(name), {},
                                            _aggregates ? block() : AggregationBlock()));
    }

    bool rename(const std::string& name) { return reports(_client->fetchStates(names(name))); }

    /// What was posted at once, if anything.
    Answer send(std::int64_t number, const std::string& fill = "") {
        return *_client->send(event(number, fill));
    }
    void sendAndForget(std::int64_t number) { EXPECT_TRUE(_client->sendAndForget(event(number, ""))); }

    bool flush() { return _client->flush()->has_value(); }

    void hangUp() { _client.reset(); }
    /// Ends the session and waits until the daemon has forgotten it.
    void leave() {
        hangUp();
        EXPECT_TRUE(_device.logs("dealloc: QuorvanedSession dealloc: " + std::to_string(sessionID()) + "\n"));
    }

    /// The numbers of the events received so far, in order.
    std::vector<std::int64_t> received() const {
        const std::scoped_lock lock(_mutex);
        return _received;
    }
    /// Waits for so many of them; what has come in the end.
    std::vector<std::int64_t> waitForReceived(std::size_t count) const {
        eventually([&] { return received().size() >= count; });
        return received();
    }

    /// Waits until its aggregation has ended.
    bool ends() const {
        return eventually([this] { return locked(_ended); });
    }
    /// Waits until it has been told the end of another session.
    bool hearsOfAnEnd() const {
        return eventually([this] { return locked(_heardOfAnEnd); });
    }

    /// While a test holds it, the client's aggregation block does not return.
    std::mutex stalls;

  private:
    static UserInfo names(const std::string& name) { return {.clientName = name, .serviceName = "Chain"}; }

    static Event event(std::int64_t number, const std::string& fill) {
        return {.category = kOurs, .type = 3, .payload = {{{"n", number}, {"fill", fill}}}};
    }

    static bool reports(const Result<ReportingStates>& states) { return !states->value().empty(); }

    bool locked(const bool& flag) const {
        const std::scoped_lock lock(_mutex);
        return flag;
    }

    AggregationBlock block() {
        return {.event =
                    [this](const AggregatedEvent& event) {
                        const std::scoped_lock lock(stalls, _mutex);
                        EXPECT_EQ(event.sessionInfo.sessionID, sessionID()) << "its own, whoever sent";
                        if (event.category == kOurs) _received.push_back(event.payload->integer("n"));
                        if (event.category == 0 && event.type == 1) _heardOfAnEnd = true;
                    },
                .ended =
                    [this](const SessionInfo& sessionInfo) {
                        const std::scoped_lock lock(_mutex);
                        EXPECT_EQ(sessionInfo.sessionID, sessionID());
                        _ended = true;
                    }};
    }

    DaemonFixture& _device;
    const SessionInfo _sessionInfo;
    const bool _aggregates;
    const std::chrono::seconds _closeTimeout;
    mutable std::mutex _mutex;
    std::vector<std::int64_t> _received;
    bool _heardOfAnEnd = false;
    bool _ended = false;
    std::optional<Client> _client;
};

/// A daemon whose storebags set up chains of three levels.
class ChainFixture : public testing::Test {
  protected:
    using Options = ChainClient::Options;

    ChainFixture() {
        int level = 0;
        for (const char* storebag : {"pelmark", "stremcore", "vistabox"}) {
            // What fills events up is for aggregators only.
            const Array filters{Value(Dictionary{{"key", "fill"}, {"action", "remove"}})};
            _device.serveStorebag(
                _device.httpPostSection(
                    {{"hierarchy", level++}, {"filters", filters}, {"event_threshold", 1'000'000}}),
                storebag);
        }
        _device.start();
    }

    /// A client that has done nothing yet; every one has another session ID.
    std::unique_ptr<ChainClient> client(Place place, Options options = {}) {
        return std::make_unique<ChainClient>(_device, place, ++_lastSessionID, options);
    }

    std::unique_ptr<ChainClient> started(Place place, const std::string& name, Options options = {}) {
        auto made = client(place, options);
        made->start(name);
        return made;
    }

    /// Has the client send the event; the identifier under which it was posted, at once.
    static std::string postedBy(ChainClient& client, std::int64_t number) {
        const auto message = platform::parseJson(client.send(number).value_or(""));
        if (!message) return "";
        return *message->dictionary()->array("events")->at(0).dictionary()->string("_sessionID");
    }

    /// The identifier under which the event of that number was posted; empty when it is not in time.
    std::string postedUnder(std::int64_t number) const {
        std::string identifier;
        eventually([&] {
            for (const Dictionary& record : _device.postedEvents(kOurs))
                if (record.integer("n") == number) identifier = *record.string("_sessionID");
            return !identifier.empty();
        });
        return identifier;
    }

    /// How often the daemon has logged the text so far.
    std::size_t logged(std::string_view text) {
        const std::string log = _device.daemon().errors();
        std::size_t count = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
        return count;
    }

    DaemonFixture _device;

  private:
    std::uint32_t _lastSessionID = 100;
};

}  // namespace quorvane::test
