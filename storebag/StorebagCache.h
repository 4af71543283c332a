#pragma once

#include "platform/base/Clock.h"
#include "platform/base/Snapshot.h"
#include "platform/value/Value.h"
#include "storebag/StorebagStatus.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane {

/// The last fetched storebag section of each storebag name, kept in memory for the life of the object. Not
/// thread-safe: the agent holds its lock around every call, also across the download, so that one download
/// runs at a time.
class StorebagCache {
  public:
    /// The section for the client type: from memory while fresh, else from a new attempt, at most one attempt
    /// in 900 s after a failure; the last good section where the attempt fails. Null when there is none, as
    /// for a client type without a storebag. Blocks for a download, up to 15 s.
    std::shared_ptr<const Dictionary> storebagForSession(std::int32_t clientType);

    /// The version of the section last served for the client type; nothing when there is none.
    std::optional<std::string> storebagVersion(std::int32_t clientType) const;

    /// How things stand with each name that was asked for, as the last attempt left them; null before the
    /// first. Any thread, no lock, also while a download runs.
    std::shared_ptr<const std::vector<StorebagStatus>> statuses() const { return _statuses.load(); }

  private:
    /// What attempts left behind: data and version from the last that brought a section, "Last-Modified" from
    /// the last that had one, the rest from the last of all.
    struct Entry {
        std::shared_ptr<const Dictionary> storebagData;
        std::optional<std::string> storebagVersion;
        platform::TimeValue fetchTime;
        std::string_view fetchState;  ///< How the last attempt ended.
        std::int32_t maxAge = 0;      ///< Seconds.
        std::optional<std::string> lastModified;
        FetchAttempt attempt;
        std::optional<platform::TimeValue> confirmed;
    };

    void fetchAndCacheStorebag(std::int32_t clientType, Entry& entry);
    void publishStatuses();

    std::map<std::string, Entry> _cachedStorebags;
    platform::Snapshot<std::vector<StorebagStatus>> _statuses;
};

}  // namespace quorvane
