#pragma once

#include "platform/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane {

/// The table of filters that remove or hash single keys of event records. Borrows the keys: the array that it
/// was made from must outlive it. Not thread-safe.
class EventFilters {
  public:
    /// Rebuilds the table from filter dictionaries, those with a "key"; an empty array leaves the table as it
    /// is.
    void createFiltersFromArray(const Array& filters);

    /// Applies the table to a record by its "_method" and "_status"; for each key the first matching filter
    /// acts.
    void filterEvent(Dictionary& event) const;

    /// Whether the later filter never acts, since the earlier one always acts before it.
    static bool hides(const Value& earlier, const Value& later);

  private:
    enum class Action : std::uint8_t { Keep, Remove, Hash };

    struct Filter {
        std::int32_t method;  ///< negative: every method
        std::int32_t status;  ///< negative: every status
        Action action;
        unsigned char keyEnd;  ///< what endOf() tells of the key
        std::string_view key;
    };

    static std::optional<Filter> filterOf(const Value& item);
    static bool isFor(const Filter& filter, unsigned char end, std::string_view key, std::int32_t method,
                      std::int32_t status);
    static Action actionNamed(const std::string* name);
    const Filter* firstMatch(std::string_view key, std::int32_t method, std::int32_t status) const;

    std::vector<Filter> _filters;
};

/// Whether a list item equals the whole string, ignoring case. An empty or missing list answers with the
/// whitelist flag, a missing string with its opposite.
bool matchExactStringWithList(const Array* list, const std::string* wholeString, bool whitelist);

/// Whether the whole string contains a list item, ignoring case; an empty item is contained in nothing. An
/// empty or missing list answers with the whitelist flag, a missing string with its opposite.
bool matchStringWithList(const Array* list, const std::string* wholeString, bool whitelist);

}  // namespace quorvane
