#pragma once

#include <quorvane/Value.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quorvane {

/// Says who reports. The daemon chooses the session's backends by the client type (5 to 11 have some).
struct SessionInfo {
    std::optional<std::uint32_t> sessionID = {};   ///< The client's own number for the session.
    std::optional<std::uint32_t> clientType = {};  ///< A single shot without these two is never answered.
    std::uint32_t clientVersion = 0;
    bool batchEvent = false;       ///< Events are collected and posted together.
    bool requireUserInfo = false;  ///< Events are held until user info comes.
};

/// Sessions of the same client name and service name (letter case aside) belong together.
struct UserInfo {
    std::optional<std::string> clientName = {};
    std::optional<std::string> serviceName = {};
    Dictionary furtherKeys =
        {};  ///< Handed to the backends; the two names above win over keys of theirs here.
};

/// Flags of an event; they can be joined with |.
inline constexpr std::uint32_t kFlagSendNow = 1;  ///< Unbatched, to the real-time URL.
inline constexpr std::uint32_t kFlagPromote = 2;  ///< A sampled-out session reports from here on.

struct Event {
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    std::optional<Dictionary> payload = {};
    std::uint32_t flag = 0;
};

/// The answer to an event or a flush, or nothing where the daemon has none.
using Answer = std::optional<std::string>;

/// Names of the backends in reporting state; nothing when there are no backends, because no storebag was
/// available.
using ReportingStates = std::optional<std::vector<std::string>>;

/// One event of an aggregating client's session or of a session below it.
struct AggregatedEvent {
    SessionInfo sessionInfo = {};  ///< Always the aggregating session's own.
    double timestamp = 0;          ///< Seconds since 1970.
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    std::optional<Dictionary> payload = {};
};

/// What an aggregating client gives to receive events. Both run on the client's executor.
struct AggregationBlock {
    std::function<void(AggregatedEvent)> event = {};
    /// Aggregation has ended for the session given; no more events come. May be empty.
    std::function<void(SessionInfo)> ended = {};

    explicit operator bool() const { return static_cast<bool>(event); }
};

/// How far an upload is.
struct UploadProgress {
    enum class Step {
        Opened,    ///< The file is open.
        Lent,      ///< The daemon holds the file and a token for it, and is about to send it.
        Finished,  ///< The daemon has answered: its servers have, or could not be reached.
    };
    Step step = Step::Opened;
    std::uint64_t fileBytes = 0;
};

}  // namespace quorvane
