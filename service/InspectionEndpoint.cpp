#include "service/InspectionEndpoint.h"

#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/bus/BusMessage.h"
#include "platform/bus/BusValue.h"
#include "service/EventSignals.h"
#include "service/InspectionAnswers.h"
#include "service/ServeCall.h"

#include <cerrno>
#include <cstddef>
#include <utility>

namespace quorvane {

void InspectionEndpoint::exportInspection(platform::BusConnection& connection, InspectionSource& source) {
    const std::shared_ptr<InspectionEndpoint> endpoint(new InspectionEndpoint(connection, source));
    if (!connection.setExportedObject(kQuorvaneObjectPath, kInspectionInterface, vtable, endpoint))
        platform::logError("listener: the inspection could not be exported on the {}",
                           connection.description());
}

#define METHOD(name, in, inName, out, outName, method)                                                \
    SD_BUS_METHOD_WITH_NAMES(name, in, inName, out, outName, &serveCall<&InspectionEndpoint::method>, \
                             SD_BUS_VTABLE_UNPRIVILEGED)
#define P(name) SD_BUS_PARAM(name)

const sd_bus_vtable InspectionEndpoint::vtable[] = {
    SD_BUS_VTABLE_START(0),
    METHOD("GetStatistics", "", , "a{sv}", P(statistics), getStatistics),
    METHOD("GetSessions", "", , "aa{sv}", P(sessions), getSessions),
    METHOD("GetStorebags", "", , "aa{sv}", P(storebags), getStorebags),
    METHOD("Monitor", "a{sv}", P(filter), "", , monitor),
    SD_BUS_SIGNAL_WITH_NAMES("Event", "a{sv}", P(event), 0),
    SD_BUS_VTABLE_END,
};

#undef P
#undef METHOD

std::optional<uid_t> InspectionEndpoint::onlyUser() const {
    const platform::BusConnection::Peer& peer = _connection.peer();
    return peer.uid == 0 || peer.isOfOwnGroup ? std::nullopt : std::optional(peer.uid);
}

int InspectionEndpoint::getStatistics(sd_bus_message* call) {
    const auto user = onlyUser();
    Dictionary statistics = statisticsAnswer(user);
    std::uint64_t sessions = 0;
    for (const SessionView& session : _source.sessionViews())
        if (!user || session.ledger->user() == *user) ++sessions;
    statistics.set("sessions", sessions);
    return answer(call, heldBytes(statistics),
                  [&](sd_bus_message* reply) { return platform::appendDictionary(reply, statistics); });
}

int InspectionEndpoint::getSessions(sd_bus_message* call) {
    const auto user = onlyUser();
    const auto storebags = _source.storebagStatuses();
    std::vector<Dictionary> answers;
    for (const SessionView& session : _source.sessionViews())
        if (!user || session.ledger->user() == *user) answers.push_back(sessionAnswer(session, storebags));
    return answer(call, answers);
}

int InspectionEndpoint::getStorebags(sd_bus_message* call) {
    std::vector<Dictionary> answers;
    for (const StorebagStatus& storebag : _source.storebagStatuses())
        answers.push_back(storebagAnswer(storebag));
    return answer(call, answers);
}

int InspectionEndpoint::monitor(sd_bus_message* call) {
    using platform::UserAccount;
    Dictionary asked;
    if (const int result = platform::readDictionary(call, asked); result < 0) return result;
    auto filter = monitorFilter(asked);
    if (!filter)
        return ::sd_bus_reply_method_errorf(call, SD_BUS_ERROR_INVALID_ARGS, "%s",
                                            filter.error().message.c_str());
    filter->user = onlyUser();
    if (_monitor == nullptr) {
        auto charge = _connection.account().charge(UserAccount::Slot::Watches, 1);
        if (!charge) return -EUSERS;
        _monitors = *std::move(charge);
    }
    _monitor = std::make_unique<EventMonitor>(*std::move(filter), eventSender(_connection));
    answerNothing(_connection, call);
    return 0;
}

int InspectionEndpoint::answer(sd_bus_message* call, const std::vector<Dictionary>& answers) {
    std::size_t bytes = 0;
    for (const Dictionary& dictionary : answers) bytes += heldBytes(dictionary);
    return answer(call, bytes, [&](sd_bus_message* reply) {
        int result = ::sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "a{sv}");
        for (auto each = answers.begin(); result >= 0 && each != answers.end(); ++each)
            result = platform::appendDictionary(reply, *each);
        return result < 0 ? result : ::sd_bus_message_close_container(reply);
    });
}

template <typename Append>
int InspectionEndpoint::answer(sd_bus_message* call, std::size_t bytes, const Append& append) {
    // The answer before it, if it is large, has been read: else this call would wait still.
    _answered = {};
    auto charge = _connection.account().charge(platform::UserAccount::Slot::Bytes, bytes);
    if (!charge) return -ENOBUFS;
    _answered = *std::move(charge);
    answerCall(_connection, call, bytes, append);
    return 0;
}

}  // namespace quorvane
