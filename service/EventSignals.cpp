#include "service/EventSignals.h"

#include "framework/Keys.h"
#include "platform/bus/BusMessage.h"
#include "platform/bus/BusValue.h"
#include "service/InspectionAnswers.h"

#include <systemd/sd-bus.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <utility>

#include <fmt/format.h>

namespace quorvane {

namespace {

/// About what a signal takes beside the news.
constexpr std::size_t kSignalBytes = 512;

bool isProcess(const Value& value) {
    return value.isInteger() && value.integer() > 0 && value.integer() <= std::numeric_limits<pid_t>::max();
}

void sendSignal(sd_bus* bus, const EventNews& news) {
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_signal(bus, &raw, kQuorvaneObjectPath, kInspectionInterface, "Event");
    const platform::BusMessage signal(raw);
    if (result >= 0) result = platform::appendDictionary(raw, eventAnswer(news));
    if (result >= 0) ::sd_bus_send(bus, raw, nullptr);
}

}  // namespace

platform::Result<EventMonitor::Filter> monitorFilter(const Dictionary& asked) {
    EventMonitor::Filter filter;
    for (const auto& [key, value] : asked) {
        if (key == "clientName") {
            if (value.string() == nullptr)
                return platform::failure("clientName in the filter: a text is expected");
            filter.clientName = *value.string();
        } else if (key == "process") {
            if (!isProcess(value))
                return platform::failure("process in the filter: the number of a process is expected");
            filter.process = static_cast<pid_t>(value.integer());
        } else {
            return platform::failure(fmt::format("the filter may have clientName and process, not {}", key));
        }
    }
    return filter;
}

EventMonitor::Told eventSender(platform::BusConnection& connection) {
    return [weak = connection.weak_from_this()](const std::shared_ptr<const EventNews>& news) {
        const auto connection = weak.lock();
        if (connection == nullptr) return;
        const auto send = [news](sd_bus* bus) {
            if (bus != nullptr) sendSignal(bus, *news);
        };
        if (!connection->queueCall(kSignalBytes + news->heldBytes(), send)) connection->invalidate();
    };
}

}  // namespace quorvane
