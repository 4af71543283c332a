#include "backends/EventMonitor.h"

#include "platform/base/ThreadAnnotations.h"
#include "platform/value/Text.h"

#include <algorithm>
#include <utility>

namespace quorvane {

using platform::MutexLock;

struct EventMonitor::All {
    using Watchers = std::vector<std::shared_ptr<const Watcher>>;

    /// As they are now; nobody is told under the lock.
    std::shared_ptr<const Watchers> load() {
        const MutexLock lock(mutex);
        return watchers;
    }

    template <typename Change>
    void change(const Change& change) {
        const MutexLock lock(mutex);
        auto changed = std::make_shared<Watchers>(*watchers);
        change(*changed);
        count.store(changed->size(), std::memory_order_relaxed);
        watchers = std::move(changed);
    }

  private:
    platform::Mutex mutex;
    std::shared_ptr<const Watchers> watchers GUARDED_BY(mutex) = std::make_shared<Watchers>();
};

/// Never destroyed: events may come after the end of main().
EventMonitor::All& EventMonitor::all() {
    static auto* const shared = new All;
    return *shared;
}

std::size_t EventNews::heldBytes() const {
    const auto sizeOf = [](const std::optional<std::string>& text) { return text ? text->size() : 0; };
    return sizeof *this + numbers.size() * sizeof numbers[0] + reasonText.size() + backend.size() +
           sizeOf(clientName) + sizeOf(serviceName);
}

bool EventMonitor::Filter::matches(const EventNews& news) const {
    if (user && *user != news.user) return false;
    if (process && *process != news.process) return false;
    return !clientName || (news.clientName && platform::equalsIgnoringCase(*clientName, *news.clientName));
}

EventMonitor::EventMonitor(Filter filter, Told told)
    : _watcher(std::make_shared<const Watcher>(Watcher{std::move(filter), std::move(told)})) {
    all().change([&](All::Watchers& watchers) { watchers.push_back(_watcher); });
}

EventMonitor::~EventMonitor() {
    all().change([&](All::Watchers& watchers) { std::erase(watchers, _watcher); });
}

bool EventMonitor::watches(uid_t user) {
    if (!isWatched()) return false;
    const auto watchers = all().load();
    return std::any_of(watchers->begin(), watchers->end(),
                       [&](const auto& watcher) { return watcher->filter.user.value_or(user) == user; });
}

void EventMonitor::tell(EventNews news) {
    const auto shared = std::make_shared<const EventNews>(std::move(news));
    for (const auto& watcher : *all().load())
        if (watcher->filter.matches(*shared)) watcher->told(shared);
}

}  // namespace quorvane
