#pragma once

#include "service/protocols.h"
#include "session/QuorvanedSession.h"

#include <sys/types.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quorvane {

/// The agent as its sessions see it: answers with what the test put there and keeps the order of the calls.
class RecordingDelegate : public QuorvanedSessionDelegate {
  public:
    std::shared_ptr<const Dictionary> storebag;
    std::optional<std::string> storebagVersion;
    std::optional<std::string> parentIDs;
    QuorvanedSession* parent = nullptr;
    QuorvanedSession* aggregator = nullptr;

    /// The names of the operations called since the last time.
    std::vector<std::string> takeCalls() {
        const std::scoped_lock lock(_callsLock);
        return std::exchange(_calls, {});
    }

    std::recursive_mutex& lock() override { return _lock; }

    std::shared_ptr<const Dictionary> storebagForSession(const QuorvanedSession&) override {
        keep("storebagForSession");
        return storebag;
    }
    std::optional<std::string> storebagVersionForSession(const QuorvanedSession&) override {
        keep("storebagVersionForSession");
        return storebagVersion;
    }
    void userInfoUpdatedForSession(QuorvanedSession&) override { keep("userInfoUpdatedForSession"); }
    void updateDownstreamSessions(QuorvanedSession&) override { keep("updateDownstreamSessions"); }
    std::optional<std::string> parentSessionIDStringForSession(const QuorvanedSession&) override {
        keep("parentSessionIDStringForSession");
        return parentIDs;
    }
    QuorvanedSession* parentSessionForChild(const QuorvanedSession&) override {
        EXPECT_TRUE(locked());
        keep("parentSessionForChild");
        return parent;
    }
    QuorvanedSession* getAncestorWithAggregatorForSession(const QuorvanedSession& session) override {
        EXPECT_TRUE(locked() || (session.getSessionHierarchy() == 0 && !session.hasAggregator()));
        keep("getAncestorWithAggregatorForSession");
        return aggregator;
    }
    std::string description() const override { return "<the agent>"; }

    /// Whether another thread would have to wait for the lock.
    bool locked() {
        return std::async(std::launch::async,
                          [this] {
                              const std::unique_lock lock(_lock, std::try_to_lock);
                              return !lock.owns_lock();
                          })
            .get();
    }

  private:
    void keep(const char* call) {
        const std::scoped_lock lock(_callsLock);
        _calls.emplace_back(call);
    }

    std::recursive_mutex _lock;
    std::mutex _callsLock;
    std::vector<std::string> _calls;
};

/// A client that keeps what it is sent.
class RecordingClient final : public ClientSessionReplyInterface {
  public:
    struct Event {
        Dictionary sessionInfo;
        double timestamp;
        std::uint16_t category;
        std::uint16_t type;
        std::optional<Dictionary> payload;

        bool endsAggregation() const { return timestamp == 0 && category == 0 && type == 0 && !payload; }
    };

    explicit RecordingClient(uid_t user = 0) : _user(user) {}
    uid_t user() const override { return _user; }

    /// Runs as an event comes.
    std::function<void()> onEvent;

    std::vector<Event> takeEvents() {
        const std::scoped_lock lock(_mutex);
        return std::exchange(_events, {});
    }

    void sendMessageToClient(const Dictionary& sessionInfo, double timestamp, std::uint16_t category,
                             std::uint16_t type, const Dictionary* payload, ErrorHandler) override {
        if (onEvent) onEvent();
        const std::scoped_lock lock(_mutex);
        _events.push_back({sessionInfo, timestamp, category, type,
                           payload != nullptr ? std::optional(*payload) : std::nullopt});
    }

  private:
    const uid_t _user;
    std::mutex _mutex;
    std::vector<Event> _events;
};

}  // namespace quorvane
