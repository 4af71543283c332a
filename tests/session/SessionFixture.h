#pragma once

#include "session/QuorvanedSession.h"
#include "tests/backends/BackendFixture.h"
#include "tests/session/RecordingPeers.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quorvane {

/// Sessions with real backends that post to a server of their own.
class SessionFixture : public PostingFixture {
  protected:
    SessionFixture() { _delegate.storebag = storebagWith({{"httppost", profile()}}); }
    ~SessionFixture() override { drain(); }

    static std::shared_ptr<const Dictionary> storebagWith(const Dictionary& section) {
        return std::make_shared<const Dictionary>(section);
    }

    /// The profile of an HTTPS backend with one client entry, which posts to /NAME, and to /NAME-now what
    /// cannot wait.
    Dictionary profile(const std::string& name = "post", Dictionary entry = {}) const {
        entry.set("post_url", _server->url("/" + name));
        entry.set("realtime_post_url", _server->url("/" + name + "-now"));
        return {{"clients", Array{Value(std::move(entry))}}};
    }

    std::shared_ptr<QuorvanedSession> makeSession() {
        return QuorvanedSession::initWithSessionDelegate(_delegate, _client);
    }

    /// A session of client type 7 with ID 7, unless the further session info says otherwise.
    std::shared_ptr<QuorvanedSession> configuredSession(const Dictionary& further = {},
                                                        const std::optional<Dictionary>& user = {},
                                                        bool aggregates = false) {
        Dictionary sessionInfo{{"SessionID", 7}, {"ClientType", 7}};
        for (const auto& [key, value] : further) sessionInfo.set(key, value);
        auto session = makeSession();
        session->setSessionInfo(std::move(sessionInfo), user, {"Quorvane"}, aggregates);
        return session;
    }

    std::shared_ptr<QuorvanedSession> startedSession(const Dictionary& further = {},
                                                     const std::optional<Dictionary>& user = {},
                                                     bool aggregates = false) {
        auto session = configuredSession(further, user, aggregates);
        start(*session);
        _delegate.takeCalls();
        return session;
    }

    static ReportingStates start(QuorvanedSession& session) {
        return answerOf<ReportingStates>([&](auto keep) { session.startConfigWithCompletionHandler(keep); });
    }

    static ReportingStates fetchStates(QuorvanedSession& session, std::optional<Dictionary> user) {
        return answerOf<ReportingStates>(
            [&](auto keep) { session.fetchStatesWithUserInfo(std::move(user), keep); });
    }

    static Answer send(QuorvanedSession& session, const Dictionary& message) {
        return answerOf<Answer>([&](auto keep) { session.sendMessageWithDictionary(message, keep); });
    }

    static Answer send(QuorvanedSession& session, std::uint16_t category, std::uint16_t type,
                       const Dictionary* payload) {
        return answerOf<Answer>(
            [&](auto keep) { session.sendMessageWithCategory(category, type, payload, keep); });
    }

    static Answer flush(QuorvanedSession& session) {
        return answerOf<Answer>([&](auto keep) { session.flushMessagesWithReply(keep); });
    }

    static std::string fetchDisplayURL(QuorvanedSession& session) {
        return answerOf<std::string>([&](auto keep) { session.fetchDisplayURL(keep); });
    }

    static void drain() { EXPECT_TRUE(platform::drainHttpSession(std::chrono::seconds(30))); }

    /// The events posted to the path, in the order of their numbers.
    std::vector<Dictionary> posted(const std::string& path = "/post") const {
        drain();
        std::vector<Dictionary> events;
        for (const test::ServerRequest& request : _server->requests())
            if (request.target == path)
                for (const Value& event : eventsIn(request.body)) events.push_back(*event.dictionary());
        std::sort(events.begin(), events.end(), [](const Dictionary& a, const Dictionary& b) {
            return a.integer("_eventNumber") < b.integer("_eventNumber");
        });
        return events;
    }

    std::string messageLog() const {
        const std::string folder = "var/mobile/Library/Logs/Faultrel/Retired";
        std::string text;
        if (!std::filesystem::exists(_root / folder)) return text;
        for (const auto& file : std::filesystem::directory_iterator(_root / folder))
            text += read(folder + "/" + file.path().filename().string());
        return text;
    }

    RecordingDelegate _delegate;
    std::shared_ptr<RecordingClient> _client = std::make_shared<RecordingClient>();

  private:
    /// What the operation answers; it must answer once, before it returns.
    template <typename Reply, typename Operation>
    static Reply answerOf(const Operation& operation) {
        std::vector<Reply> answers;
        operation([&](const Reply& reply) { answers.push_back(reply); });
        EXPECT_EQ(answers.size(), 1u);
        return answers.size() == 1 ? answers[0] : Reply();
    }
};

}  // namespace quorvane
