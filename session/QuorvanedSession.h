#pragma once

#include "backends/CreateBackends.h"
#include "backends/SessionLedger.h"
#include "platform/base/Clock.h"
#include "platform/base/Snapshot.h"
#include "platform/value/Value.h"
#include "service/protocols.h"
#include "session/SessionView.h"
#include "util/DeviceFacts.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorvane {

/// One client connection's session, the object that the connection exports: carries the client's identity and
/// the reporting backends, and hands every event to each of them.
///
/// Created, configured and fed on its connection's thread. Operations marked "any thread" are also called
/// from the threads of other sessions, with the agent's lock held.
class QuorvanedSession final : public ClientSessionInterface {
  public:
    /// The delegate must outlive the session; the client is shared.
    static std::shared_ptr<QuorvanedSession> initWithSessionDelegate(
        QuorvanedSessionDelegate& sessionDelegate, std::shared_ptr<ClientSessionReplyInterface> connection);
    /// Sends the session's last event, flushes, ends aggregation and cleans the backends up. Waits, as a send
    /// does, so no lock may be held.
    ~QuorvanedSession() override;
    QuorvanedSession(const QuorvanedSession&) = delete;
    QuorvanedSession& operator=(const QuorvanedSession&) = delete;

    // The client's operations.
    void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                        std::vector<std::string> frameworksToCheck, bool hasAggregationBlock) override;
    void startConfigWithCompletionHandler(
        const std::function<void(const ReportingStates&)>& completionHandler) override;
    void fetchStatesWithUserInfo(
        std::optional<Dictionary> userInfo,
        const std::function<void(const ReportingStates&)>& completionHandler) override;
    void fetchDisplayURL(const std::function<void(const std::string&)>& reply) override;
    void sendMessageWithCategory(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                                 const std::function<void(const Answer&)>& reply) override;
    void sendMessageWithDictionary(const Dictionary& message,
                                   const std::function<void(const Answer&)>& reply) override;
    void sendEarlierMessage(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                            std::uint32_t flag, platform::TimeValue time) override;
    void flushMessagesWithReply(const std::function<void(const Answer&)>& reply) override;
    bool continueSending() override;
    void uploadFileAtPath(const std::string& fileURL, const std::string& extensionToken,
                          const std::function<void(bool)>& completionHandler) override;
    void uploadLogData(const Array& logData,
                       const std::function<void(bool, const Answer& error)>& completionHandler) override;
    void sendMessageWithSessionInfo(const Dictionary& sessionInfo, std::optional<Dictionary> userInfo,
                                    std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                                    const std::function<void(const std::string&)>& reply) override;

    /// Sends one event through backends made for it alone, and flushes nothing: what they would hold is lost.
    static void sendMessageWithSessionInfo(const std::shared_ptr<const Dictionary>& sessionInfo,
                                           const std::shared_ptr<const Dictionary>& userInfo,
                                           const std::shared_ptr<const Dictionary>& storebag,
                                           std::uint16_t category, std::uint16_t type,
                                           const Dictionary* payload,
                                           const std::shared_ptr<SessionLedger>& ledger = nullptr);

    // Identity. Any thread.
    std::uint32_t sessionID() const { return _sessionID; }
    void setSessionID(std::uint32_t sessionID) { _sessionID = sessionID; }
    /// 24 base64 characters of a random UUID.
    const std::string& sessionIDString() const { return _sessionIDString; }
    std::shared_ptr<const Dictionary> userInfo() const { return _userInfo.load(); }
    std::shared_ptr<const Dictionary> sessionInfo() const { return _sessionInfo.load(); }
    uid_t user() const { return _connection->user(); }
    std::string description() const;
    /// All there is to see of the session from outside.
    SessionView view() const;

    // Hierarchy and reporting states. Any thread.
    /// 0 is the top.
    std::int32_t getSessionHierarchy() const;
    ReportingStates fetchReportingStates() const;
    std::optional<Value> samplingThresholdWithBackendName(const std::string& name) const;
    /// Makes the backends' states follow the parent's.
    void syncReportingStates();
    void updateCombinedSessionID();

    // Aggregation. Any thread.
    bool hasAggregator() const { return _hasAggregator; }
    void setHasAggregator(bool hasAggregator) { _hasAggregator = hasAggregator; }
    /// Hands an event to this session's client.
    void sendToAggregator(const Dictionary* sessionInfo, double timestamp, std::uint16_t category,
                          std::uint16_t type, const Dictionary* payload);
    void shutdownSessionAggregation();

  private:
    QuorvanedSession(QuorvanedSessionDelegate& sessionDelegate,
                     std::shared_ptr<ClientSessionReplyInterface> connection);

    // Configuration: QuorvanedSession.cpp.
    void publishIdentity();
    void receivedUserInfo(std::shared_ptr<const Dictionary> userInfo);
    bool sameNames(const Dictionary* userInfo) const;
    void updateSessionWithDefaultSessionInfo();
    const std::string* displayURL() const;

    // Backends: CreateSessionBackends.cpp.
    void createBackendsWithStorebag(const std::shared_ptr<const Dictionary>& storebag);
    void replaceBackends(std::optional<BackendDictionary> backends);

    // Dispatch: MessageDispatch.cpp.
    Answer sendMessageWithCategory(std::uint16_t category, std::uint16_t type, const Dictionary* payload);
    Answer sendMessageWithDictionary(const Dictionary& message);
    bool isServed() const;
    void dropMessage(UnservedReason reason, const Dictionary& message);
    bool hasBackendsToSend() const;
    Answer dispatch(std::uint16_t category, std::uint16_t type, const Dictionary* payload, MessageFlag flag,
                    platform::TimeValue time);
    void internalSendMessage(const Dictionary& message, std::uint16_t method, std::uint16_t respCode);
    Answer flushMessages();

    // Reporting states: ReportingStates.cpp.
    void updateReportingStates();

    // Relay: AggregationRelay.cpp.
    void aggregateMessage(double timestamp, std::uint16_t category, std::uint16_t type,
                          const Dictionary* payload);

    // Uploads: SessionUploads.cpp.
    void uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                           const std::function<void(bool)>& completionHandler);

    std::atomic<std::uint32_t> _sessionID{0};
    platform::Snapshot<Dictionary> _sessionInfo;
    platform::Snapshot<Dictionary> _userInfo;
    std::vector<std::string> _frameworks;
    platform::Snapshot<BackendDictionary> _backends;
    QuorvanedSessionDelegate& _sessionDelegate;
    const std::string _sessionIDString;
    std::optional<std::string> _storebagVersion;
    UnservedReason _unserved = UnservedReason::NotStarted;  ///< why, while there are no backends
    DeviceIdentifier _deviceid{};
    const std::shared_ptr<ClientSessionReplyInterface> _connection;
    const std::shared_ptr<SessionLedger> _ledger;
    std::atomic<bool> _hasAggregator{false};
};

}  // namespace quorvane
