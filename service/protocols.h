#pragma once

#include "platform/base/Clock.h"
#include "platform/value/Value.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quorvane {

class QuorvanedSession;

/// A client's answer to an event or a flush; nothing stands for nil.
using Answer = std::optional<std::string>;
/// Names of the backends in reporting state; nothing when there are no backends.
using ReportingStates = std::optional<std::vector<std::string>>;

/// What the daemon exports on every connection. The calls of one connection come one after another on its
/// thread. Every reply block is called at most once, before the operation returns; an empty one is not
/// called.
class ClientSessionInterface {
  public:
    virtual ~ClientSessionInterface() = default;

    virtual void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                std::vector<std::string> frameworksToCheck, bool hasAggregationBlock) = 0;
    /// May block for a download, up to 15 s.
    virtual void startConfigWithCompletionHandler(
        const std::function<void(const ReportingStates&)>& completionHandler) = 0;
    virtual void fetchStatesWithUserInfo(
        std::optional<Dictionary> userInfo,
        const std::function<void(const ReportingStates&)>& completionHandler) = 0;
    virtual void fetchDisplayURL(const std::function<void(const std::string&)>& reply) = 0;

    virtual void sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                         const Dictionary* payload,
                                         const std::function<void(const Answer&)>& reply) = 0;
    virtual void sendMessageWithDictionary(const Dictionary& message,
                                           const std::function<void(const Answer&)>& reply) = 0;
    /// An event that its client reported at the time given; nobody asks for its answer.
    virtual void sendEarlierMessage(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                                    std::uint32_t flag, platform::TimeValue time) = 0;
    virtual void flushMessagesWithReply(const std::function<void(const Answer&)>& reply) = 0;
    /// Does a part of what events left to do when they were answered; whether more is left. To be called
    /// while the client asks for nothing.
    virtual bool continueSending() = 0;

    /// Both block until every upload backend has its server's answer. The file is named by a file URL.
    virtual void uploadFileAtPath(const std::string& fileURL, const std::string& extensionToken,
                                  const std::function<void(bool)>& completionHandler) = 0;
    virtual void uploadLogData(const Array& logData,
                               const std::function<void(bool, const Answer& error)>& completionHandler) = 0;

    /// Replies "finished" or "storebag not available", and nothing at all when the session info lacks its
    /// identifiers. May block for a download.
    virtual void sendMessageWithSessionInfo(const Dictionary& sessionInfo, std::optional<Dictionary> userInfo,
                                            std::uint16_t category, std::uint16_t type,
                                            const Dictionary* payload,
                                            const std::function<void(const std::string&)>& reply) = 0;
};

/// A client as the daemon calls it back. Calls are queued to the client's connection; they never block and
/// may come from any thread.
class ClientSessionReplyInterface {
  public:
    /// Told at most once why a call will not reach the client: it is gone, or more than the bound waits for
    /// it. On the caller's thread before the call returns, or later on the connection's.
    using ErrorHandler = void (*)(const std::string& error);

    virtual ~ClientSessionReplyInterface() = default;

    /// Whose process the client is, and which; 0 where that is not known.
    virtual uid_t user() const = 0;
    virtual pid_t process() const { return 0; }

    /// One event for an aggregating client; timestamp 0, category 0, type 0 and no payload end its
    /// aggregation.
    ///   timestamp  seconds since 1970
    virtual void sendMessageToClient(const Dictionary& sessionInfo, double timestamp, std::uint16_t category,
                                     std::uint16_t type, const Dictionary* payload,
                                     ErrorHandler errorHandler) = 0;
};

/// What a session asks of the agent.
class QuorvanedSessionDelegate {
  public:
    virtual ~QuorvanedSessionDelegate() = default;

    /// The agent's own lock, which guards the groups of correlated sessions and the storebag cache.
    /// Recursive.
    virtual std::recursive_mutex& lock() = 0;

    /// The storebag section for the session's client type, or null; may download under the lock.
    virtual std::shared_ptr<const Dictionary> storebagForSession(const QuorvanedSession& session) = 0;
    virtual std::optional<std::string> storebagVersionForSession(const QuorvanedSession& session) = 0;

    /// Files the session under the key of its user info.
    virtual void userInfoUpdatedForSession(QuorvanedSession& session) = 0;
    /// Corrects combined identifiers, states and aggregation of the session and of those below it.
    virtual void updateDownstreamSessions(QuorvanedSession& session) = 0;
    /// The ancestors' identifiers joined by ".", top down.
    virtual std::optional<std::string> parentSessionIDStringForSession(const QuorvanedSession& session) = 0;

    /// Both are called with the lock held, and what they return is valid while it is. A session of level 0,
    /// which has no ancestor, asks for one without it.
    virtual QuorvanedSession* parentSessionForChild(const QuorvanedSession& session) = 0;
    virtual QuorvanedSession* getAncestorWithAggregatorForSession(const QuorvanedSession& session) = 0;

    virtual std::string description() const = 0;
};

}  // namespace quorvane
