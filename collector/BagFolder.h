#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::collector {

/// A folder of signed storebags, one a file, named as devices ask for it. Files are read at every request, so
/// a new bag is served as soon as it has been moved into place. Thread-safe.
class BagFolder {
  public:
    struct Bag {
        std::string bytes;
        std::int64_t modified = 0;  ///< seconds since 1970
    };

    static constexpr std::size_t kMaximumBagBytes = 16u << 20;

    /// Throws StartError when there is no such folder.
    explicit BagFolder(std::string path);

    /// The bag of that name; nothing when the folder has none. The name comes from the network: it is
    /// compared with what the folder holds and never becomes a path.
    std::optional<Bag> bag(std::string_view name) const;

  private:
    const std::string _path;
};

/// The time as an HTTP date (RFC 9110 section 5.6.7): "Sun, 16 Nov 2025 08:00:00 GMT".
std::string httpDate(std::int64_t seconds);

}  // namespace quorvane::collector
