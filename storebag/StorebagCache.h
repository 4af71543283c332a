#pragma once

#include "platform/Value.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace quorvane {

/// The last fetched storebag section of each storebag name. Not thread-safe: the agent holds its lock around
/// every call, also across the download.
class StorebagCache {
  public:
    /// The section for the client type: from memory while fresh, else from a new attempt, at most one attempt
    /// in 900 s after a failure. Null when there is none. Blocks for a download, up to 15 s.
    std::shared_ptr<const Dictionary> storebagForSession(std::uint32_t sessionID, std::int32_t clientType);

    /// The version of the section last served for the client type.
    std::optional<std::string> storebagVersion(std::int32_t clientType) const;

  private:
    struct Entry;  // see the source file's reader's note on what each attempt writes

    void fetchAndCacheStorebag(std::int32_t clientType);

    std::map<std::string, Entry> _cachedStorebags;
};

}  // namespace quorvane
