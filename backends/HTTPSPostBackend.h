#pragma once

#include "backends/EntrySettings.h"
#include "backends/EventBatch.h"
#include "backends/EventFilters.h"
#include "backends/EventRecord.h"
#include "backends/PostTargets.h"
#include "backends/QuorvaneBackend.h"
#include "backends/ReportingRules.h"
#include "platform/http/HttpSession.h"
#include "util/Compression.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quorvane {

/// Turns a session's events into JSON records and posts them over HTTPS, at once or in batches.
///
/// Its profile holds "clients", an array of client entries; the entry that matches the session's user info
/// says whether and where this backend reports.
class HTTPSPostBackend final : public QuorvaneBackend, public std::enable_shared_from_this<HTTPSPostBackend> {
  public:
    /// Null without a profile or a product family, and null with an error line without "clients" in the
    /// profile.
    static std::shared_ptr<HTTPSPostBackend> initWithName(const std::string& name,
                                                          std::shared_ptr<const Dictionary> profile,
                                                          const OptionalString& productFamily);

    /// Whether there is enough for a backend; else null is made, with the same error line.
    static bool accepts(const Dictionary* profile, const OptionalString& productFamily);

    /// Builds the event's record and posts or holds it. The answer is the posted message's pretty-printed
    /// JSON, when the user's consent lets it be logged.
    ///   respCode  1, in any category, marks the session's last event, which tells the sampling settings too
    ///   flag      bit 0: post now, to the real-time URL; bit 1: a sampled-out backend starts to report
    /// Waits, holding no lock, while the HTTP session has too much to send.
    Answer sendMessage(const Dictionary* payload, TimeValue timestamp, std::uint16_t method,
                       std::uint16_t respCode, EventID eventID, MessageFlag flag) override;
    using QuorvaneBackend::sendMessage;

    /// Posts a batch that the last event has completed, step by step: an event that comes meanwhile waits for
    /// one step only.
    bool continueSending() override;

    /// Posts the held records in one message if the backend reports; the answer is as above.
    Answer flushMessages() override;

    /// Sets the state to what updateBackendState answers.
    void updateState() override;

    /// Also rewrites "_sessionID" in every held record. Thread-safe.
    void setCorrelatedSessionID(const std::string& combinedSessionID) override;

    /// Drops what is held.
    void cleanup() override;

    /// Works the state and the settings out from the profile and the user info; does not store the state.
    BackendState updateBackendState();

    /// Takes the post URLs of a client entry where no user default is in force; whether the entry supplied
    /// the ordinary one.
    bool updatePostLink(const Dictionary& entry) { return _targets.update(entry); }

    const OptionalString& postURL() const { return _targets.postURL(); }
    void setPostURL(OptionalString postURL) { _targets.setPostURL(std::move(postURL)); }

  private:
    HTTPSPostBackend(const std::string& name, std::shared_ptr<const Dictionary> profile,
                     const OptionalString& productFamily);

    /// What the next post waits for: that this one has started, or that it was answered or has failed.
    enum class Order { Started, Ended };

    // The state: UpdateBackendState.cpp.
    ReportingFacts reportingFacts() const;
    void applyExpedite(bool batchEvents);
    void takeFirstTargets(const Array& clients);
    void applyReporting(const EntrySettings::Reporting& settings);
    void applyEventThreshold(std::optional<std::int32_t> threshold);
    void applyExtrasOnInternal(std::optional<std::int32_t> extras);

    // Records: EventRecord.cpp.
    Dictionary createEventDictfromPayload(const Dictionary* payload, TimeValue timestamp,
                                          std::uint16_t method, std::uint16_t respCode);
    std::int64_t startMinute() const;
    /// After a change to what the template was made from.
    void renewTemplate();
    /// Internal builds may tell the device by its own identifier.
    bool tellsIdentifier() const { return _extrasOnInternal != 0 && isInternal(); }
    std::optional<Dictionary> sessionStopPayload(const Dictionary* payload) const;

    /// Records that go together, and which events they are of.
    struct Records {
        Array records;
        EventGroup events;
    };

    // Sending, holding and flushing: EventBatching.cpp.
    bool awaitsUserInfo() const { return requireUserInfo() && userInfoDict() == nullptr; }
    bool mayFlush() const { return state() == BackendState::Enabled && !awaitsUserInfo(); }
    void batchEvent(Dictionary event);
    bool hold(Dictionary& event, std::int64_t method, std::int32_t count);
    void postOrDrop(Dictionary event);
    void dropEvent();
    Records alone(Dictionary event) const;
    Records takeBatch();
    bool beginPost();
    bool compressStep();
    void addUserInfo(Array& records) const;
    /// These write the posted text where it is asked for: it costs as much as the message itself.
    void flush(Answer* prettyJson, Order order = Order::Started);
    void postBatch(Records batch, Answer* prettyJson, Order order = Order::Started);
    void post(Records records, MessageFlag flag, std::optional<std::uint16_t> method,
              std::optional<std::uint16_t> responseCode, Answer* prettyJson, Order order = Order::Started);

    // Messages and posts: JSONPosting.cpp.
    struct Message {
        Data json;
        EventGroup events;
    };

    /// A message of which a part is compressed.
    struct UnfinishedPost {
        explicit UnfinishedPost(Message whole) : message(std::move(whole)), deflater(message.json.size()) {}
        Message message;
        GzipDeflater deflater;
        std::size_t compressed = 0;
    };
    std::optional<Message> createMessageForPostAndLogging(Records records, OptionalString* prettyJsonString);
    OptionalString clientID() const;
    std::vector<platform::HttpHeader> postHeaders(std::optional<std::uint16_t> method,
                                                  std::optional<std::uint16_t> responseCode) const;
    void postJSONMessage(Message message, MessageFlag flag, std::optional<std::uint16_t> method,
                         std::optional<std::uint16_t> responseCode, Order order);
    /// Posts the message or its compressed form, whichever is shorter.
    void postBody(Message message, Data compressed, const std::string& url,
                  std::vector<platform::HttpHeader> headers, Order order);
    void postCompleted(const std::string& name, const platform::HttpResult& result, const EventGroup& events);
    void noteFate(const platform::HttpResult& result, const EventGroup& events);

    PostTargets _targets = PostTargets::ofUserDefaults();
    EventFilters _filters;
    const bool _dnuEnabled;  ///< the user's consent to the submission of diagnostics
    DnuType _dnuType = DnuType::None;
    ReportingReason _reason = ReportingReason::NotSetUp;  ///< of the state worked out last
    std::int32_t _eventThreshold = kDefaultEventThreshold;
    std::int32_t _extrasOnInternal = 0;
    std::optional<Value> _overrideSampling;
    const std::string _uuidRespectDnu;
    const std::string _uuidOverrideDnu;
    RecordTemplate _template;
    std::uint32_t _templateRevision = 0;  ///< of the facts that it was made from
    EventBatch _batch;
    Records _completed;  ///< a batch that continueSending() posts
    std::optional<UnfinishedPost> _unfinished;
};

}  // namespace quorvane
