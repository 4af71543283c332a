#include "backends/EventFilters.h"

#include "backends/QuorvaneBackend.h"
#include "platform/value/Text.h"

#include <algorithm>

namespace quorvane {

namespace {

constexpr std::int32_t kAny = -1;

/// The filter's number under the key; any when absent.
std::int32_t numberOrAny(const Dictionary& filter, std::string_view key) {
    return filter.contains(key) ? static_cast<std::int32_t>(filter.integer(key)) : kAny;
}

bool covers(std::int32_t filtered, std::int32_t number) {
    return filtered < 0 || filtered == number;
}

/// Tells nearly all keys apart ahead of the comparison by Unicode's rules, since every key of every event
/// meets every filter: texts that are equal but for case have equal ends. 0 where the end tells nothing.
unsigned char endOf(std::string_view text) {
    const auto last = static_cast<unsigned char>(text.empty() ? 0 : text.back());
    constexpr unsigned char caseBit = 0x20;
    return last != 0 && last < 0x80 ? last | caseBit : 0;
}

template <typename Matches>
bool matchList(const Array* list, const std::string* wholeString, bool whitelist, Matches matches) {
    if (list == nullptr || list->empty()) return whitelist;
    if (wholeString == nullptr) return !whitelist;
    // The flag has no say once there is something to compare: a miss is a miss.
    return std::any_of(list->begin(), list->end(), [&](const Value& item) {
        return item.string() != nullptr && matches(*wholeString, *item.string());
    });
}

}  // namespace

EventFilters::Action EventFilters::actionNamed(const std::string* name) {
    if (name != nullptr && *name == "remove") return Action::Remove;
    if (name != nullptr && *name == "sha256") return Action::Hash;
    return Action::Keep;
}

void EventFilters::createFiltersFromArray(const Array& filters) {
    if (filters.empty()) return;
    _filters.clear();
    _filters.reserve(filters.size());
    for (const Value& item : filters)
        if (const std::optional<Filter> filter = filterOf(item)) _filters.push_back(*filter);
}

std::optional<EventFilters::Filter> EventFilters::filterOf(const Value& item) {
    const Dictionary* filter = item.dictionary();
    const std::string* key = filter != nullptr ? filter->string("key") : nullptr;
    if (key == nullptr) return std::nullopt;
    return Filter{.method = numberOrAny(*filter, "method"),
                  .status = numberOrAny(*filter, "status"),
                  .action = actionNamed(filter->string("action")),
                  .keyEnd = endOf(*key),
                  .key = *key};
}

bool EventFilters::hides(const Value& earlier, const Value& later) {
    const std::optional<Filter> first = filterOf(earlier), second = filterOf(later);
    // A filter for any method is hidden only by another such: no event has a method below 0.
    return first && second &&
           isFor(*first, second->keyEnd, second->key, std::max(second->method, kAny),
                 std::max(second->status, kAny));
}

bool EventFilters::isFor(const Filter& filter, unsigned char end, std::string_view key, std::int32_t method,
                         std::int32_t status) {
    const bool endsDiffer = filter.keyEnd != end && filter.keyEnd != 0 && end != 0;
    return !endsDiffer && covers(filter.method, method) && covers(filter.status, status) &&
           platform::equalsIgnoringCase(filter.key, key);
}

const EventFilters::Filter* EventFilters::firstMatch(std::string_view key, std::int32_t method,
                                                     std::int32_t status) const {
    const unsigned char end = endOf(key);
    const auto match = std::find_if(_filters.begin(), _filters.end(), [&](const Filter& filter) {
        return isFor(filter, end, key, method, status);
    });
    return match != _filters.end() ? &*match : nullptr;
}

void EventFilters::filterEvent(Dictionary& event) const {
    if (_filters.empty()) return;
    const auto method = static_cast<std::int32_t>(event.integer("_method"));
    const auto status = static_cast<std::int32_t>(event.integer("_status"));
    // From the back, so that a removal moves only keys that were looked at.
    for (std::size_t i = event.size(); i-- > 0;) {
        auto& [key, value] = event.begin()[i];
        const Filter* filter = firstMatch(key, method, status);
        if (filter == nullptr || filter->action == Action::Keep) continue;
        if (filter->action == Action::Remove) {
            event.remove(key);
        } else {
            // What is no text must not go out unhashed either: its printed form is hashed.
            const std::string* text = value.string();
            value = QuorvaneBackend::convertIntoSHA256(text != nullptr ? *text : value.description());
        }
    }
}

bool matchExactStringWithList(const Array* list, const std::string* wholeString, bool whitelist) {
    return matchList(list, wholeString, whitelist, platform::equalsIgnoringCase);
}

bool matchStringWithList(const Array* list, const std::string* wholeString, bool whitelist) {
    return matchList(list, wholeString, whitelist, [](std::string_view text, std::string_view item) {
        return !item.empty() && platform::containsIgnoringCase(text, item);
    });
}

}  // namespace quorvane
