#pragma once

#include "backends/BackendState.h"
#include "backends/EventLedger.h"
#include "platform/base/Clock.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/value/Value.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quorvane {

enum class EventID : std::uint16_t {};
enum class MessageFlag : std::uint32_t {};

/// The base of every reporting backend: the facts of its session and the operations that a session calls. The
/// base's own delivery operations do nothing.
///
/// A backend is set up and fed by its session's thread. Other threads may call name, standing, state,
/// setState, hierarchy, combinedSessionIDString, setCorrelatedSessionID, samplingThreshold and
/// setSamplingThreshold at any time.
class QuorvaneBackend {
  public:
    using TimeValue = platform::TimeValue;
    using Answer = std::optional<std::string>;
    using OptionalString = std::optional<std::string>;

    /// Makes the backend of that name; null, and an error line, for an unknown name.
    static std::shared_ptr<QuorvaneBackend> newBackendWithName(const std::string& name,
                                                               std::shared_ptr<const Dictionary> profile,
                                                               const OptionalString& productFamily,
                                                               std::int32_t clientType);

    /// Whether that makes one, as far as it rests on these; else with the error line that tells why.
    static bool isMadeOf(const std::string& name, const Dictionary* profile,
                         const OptionalString& productFamily, std::int32_t clientType);

    virtual ~QuorvaneBackend() = default;
    QuorvaneBackend(const QuorvaneBackend&) = delete;
    QuorvaneBackend& operator=(const QuorvaneBackend&) = delete;

    /// The SHA-256 of the text's UTF-8 bytes, as many of them as the text has UTF-16 code units, in
    /// lower-case hex.
    static std::string convertIntoSHA256(std::string_view text);

    /// Numbers the event and delivers it through the six-part operation below; what the session calls.
    Answer sendMessage(const Dictionary* message, TimeValue timestamp, std::uint16_t method,
                       std::uint16_t respCode, MessageFlag flag);

    /// Delivers one event; the base drops it. The answer is for the client and the local message log.
    virtual Answer sendMessage(const Dictionary* message, TimeValue timestamp, std::uint16_t method,
                               std::uint16_t respCode, EventID eventID, MessageFlag flag);

    /// Does a part of what a send left undone to answer sooner; whether more is left. To be called after
    /// each, once its answer is on its way.
    virtual bool continueSending() { return false; }
    /// Does all of it.
    void finishSending();

    virtual Answer flushMessages() { return std::nullopt; }
    virtual bool uploadFileAtPath(const std::string& path, const char* extensionToken);
    virtual bool uploadLogData(const Array& logData);

    /// Works the state out anew; the base always reports.
    virtual void updateState() { setState(kAlwaysReporting.state, kAlwaysReporting.reason); }
    virtual void setCorrelatedSessionID(const std::string& combinedSessionID);
    virtual void cleanup() {}

    struct ShortVersion {
        std::uint8_t major;
        std::string text;  ///< "major.minor"
    };
    /// Each part is cut to 8 bits, what follows is ignored.
    static ShortVersion shortVersionOf(std::string_view version);
    void setSelfVersion(std::string_view version);
    void setStartTimestamp(TimeValue time);

    BackendState state() const { return standing().state; }
    /// The state and the reason for it.
    Standing standing() const { return _standing; }
    void setState(BackendState state, ReportingReason reason = ReportingReason::NotSetUp) {
        _standing = Standing{state, reason};
    }

    /// What became of the events that it was given.
    EventLedger& ledger() { return _ledger; }
    const EventLedger& ledger() const { return _ledger; }

    std::uint32_t sessionID() const { return _sessionID; }
    void setSessionID(std::uint32_t sessionID) { change(_sessionID, sessionID); }

    /// The ancestors' session identifiers and the session's own, top down, joined by ".".
    OptionalString combinedSessionIDString() const;
    void setCombinedSessionIDString(OptionalString combinedSessionID);

    std::int32_t hierarchy() const { return _hierarchy; }
    void setHierarchy(std::int32_t hierarchy) { _hierarchy = hierarchy; }

    /// The session's client type.
    std::int32_t compType() const { return _compType; }
    void setCompType(std::int32_t compType) { change(_compType, compType); }

    std::uint16_t clientVersion() const { return _clientVersion; }
    void setClientVersion(std::uint16_t clientVersion) { change(_clientVersion, clientVersion); }

    /// The device identifier's bytes, zero-terminated; borrowed, so they must outlive the backend.
    const char* udid() const { return _udid; }
    void setUdid(const char* udid) { _udid = udid; }

    /// The backend's key in the storebag section and in the session. Not to be set once other threads know
    /// the backend.
    const std::string& name() const { return _name; }
    void setName(std::string name) { _name = std::move(name); }

    /// A page that a client may show for this backend's data.
    const OptionalString& displayURL() const { return _displayURL; }
    void setDisplayURL(OptionalString displayURL) { _displayURL = std::move(displayURL); }

    const OptionalString& productVersion() const { return _productVersion; }
    void setProductVersion(OptionalString productVersion) {
        change(_productVersion, std::move(productVersion));
    }

    const OptionalString& buildVersion() const { return _buildVersion; }
    void setBuildVersion(OptionalString buildVersion) { change(_buildVersion, std::move(buildVersion)); }

    const OptionalString& hardwareType() const { return _hardwareType; }
    void setHardwareType(OptionalString hardwareType) { change(_hardwareType, std::move(hardwareType)); }

    const OptionalString& productFamily() const { return _productFamily; }
    void setProductFamily(OptionalString productFamily) { change(_productFamily, std::move(productFamily)); }

    bool isInternal() const { return _isInternal; }
    void setIsInternal(bool isInternal) { change(_isInternal, isInternal); }

    const std::shared_ptr<const Dictionary>& userInfoDict() const { return _userInfoDict; }
    void setUserInfoDict(std::shared_ptr<const Dictionary> userInfo) {
        change(_userInfoDict, std::move(userInfo));
    }

    /// Whether the session wants user info before it reports.
    bool requireUserInfo() const { return _requireUserInfo; }
    void setRequireUserInfo(bool requireUserInfo) { _requireUserInfo = requireUserInfo; }

    /// Whether the session asked for batched delivery.
    bool batchEvents() const { return _batchEvents; }
    void setBatchEvents(bool batchEvents) { _batchEvents = batchEvents; }

    /// This backend's random draw, in [0, 1).
    double samplingFactor() const { return _samplingFactor; }
    void setSamplingFactor(double samplingFactor) { _samplingFactor = samplingFactor; }

    /// The number that the sampling factor is compared with, as it was stored.
    std::optional<Value> samplingThreshold() const;
    void setSamplingThreshold(std::optional<Value> samplingThreshold);

  protected:
    QuorvaneBackend(std::string name, std::shared_ptr<const Dictionary> profile,
                    OptionalString productFamily);

    /// The storebag section's entry for this backend, or null.
    const std::shared_ptr<const Dictionary>& profile() const { return _profile; }
    /// When the session's backends were made, in seconds since 1970.
    double startTimeStamp() const { return _startTimeStamp; }
    /// The number of the event sent last: 1 for the first, 0 after 65535.
    std::uint16_t eventID() const { return _eventID; }
    std::uint8_t selfVersionMajor() const { return _selfVersionMajor; }
    /// "major.minor" of the daemon's own version.
    const std::string& selfVersion() const { return _selfVersion; }

    /// Counts the changes to what the session and the device are told by, so that something prepared from it
    /// can be found out of date.
    std::uint32_t revision() const { return _revision.load(std::memory_order_relaxed); }
    void changed() { _revision.fetch_add(1, std::memory_order_relaxed); }

    /// Sets the standing only when the state is the expected one.
    void replaceState(BackendState expected, Standing standing);

    /// Guards what the backend holds. The innermost lock of all: nothing is called out, awaited or posted
    /// under it.
    mutable platform::Mutex _lock;

  private:
    template <typename Fact>
    void change(Fact& fact, Fact value) {
        fact = std::move(value);
        changed();
    }

    const std::shared_ptr<const Dictionary> _profile;
    std::string _name;
    EventLedger _ledger;
    std::atomic<Standing> _standing{Standing()};
    OptionalString _productVersion;
    OptionalString _buildVersion;
    OptionalString _hardwareType;
    OptionalString _productFamily;
    double _startTimeStamp = 0;
    std::uint32_t _sessionID = 0;
    OptionalString _combinedSessionIDString GUARDED_BY(_lock);
    std::atomic<std::int32_t> _hierarchy{0};
    std::int32_t _compType = 0;
    std::uint16_t _clientVersion = 0;
    std::uint16_t _eventID = 0;
    std::uint8_t _selfVersionMajor = 0;
    std::string _selfVersion = "0.0";
    bool _isInternal = false;
    bool _requireUserInfo = false;
    std::shared_ptr<const Dictionary> _userInfoDict;
    bool _batchEvents = false;
    const char* _udid = nullptr;
    OptionalString _displayURL;
    double _samplingFactor;
    std::optional<Value> _samplingThreshold GUARDED_BY(_lock);
    std::atomic<std::uint32_t> _revision{1};
};

}  // namespace quorvane
