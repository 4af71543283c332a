#include "service/InspectionEndpoint.h"

#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "platform/bus/BusMessage.h"
#include "platform/bus/BusValue.h"
#include "service/InspectionAnswers.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <utility>

namespace quorvane {

void InspectionEndpoint::exportInspection(platform::BusConnection& connection, InspectionSource& source) {
    const std::shared_ptr<InspectionEndpoint> endpoint(new InspectionEndpoint(connection, source));
    if (!connection.setExportedObject(kQuorvaneObjectPath, kInspectionInterface, vtable, endpoint))
        platform::logError("listener: the inspection could not be exported on the {}",
                           connection.description());
}

/// sd-bus calls this from C, so no exception may leave it; 1 says that the call is done with.
template <int (InspectionEndpoint::*method)(sd_bus_message*)>
int InspectionEndpoint::serve(sd_bus_message* call, void* endpoint, sd_bus_error* error) noexcept {
    try {
        const int result = (static_cast<InspectionEndpoint*>(endpoint)->*method)(call);
        if (result >= 0) return 1;
        if (result == -ENOBUFS)
            return ::sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                      "Too much is held for the client's user already");
        return ::sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "The answer cannot be sent (%s)",
                                   std::strerror(-result));
    } catch (const std::exception& thrown) {
        platform::logError("serve: {} failed: {}", ::sd_bus_message_get_member(call), thrown.what());
        return ::sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "The call could not be served");
    }
}

#define METHOD(name, out, outName, method)                                            \
    SD_BUS_METHOD_WITH_NAMES(name, "", , out, outName,                                \
                             &InspectionEndpoint::serve<&InspectionEndpoint::method>, \
                             SD_BUS_VTABLE_UNPRIVILEGED)

const sd_bus_vtable InspectionEndpoint::vtable[] = {
    SD_BUS_VTABLE_START(0),
    METHOD("GetStatistics", "a{sv}", SD_BUS_PARAM(statistics), getStatistics),
    METHOD("GetSessions", "aa{sv}", SD_BUS_PARAM(sessions), getSessions),
    METHOD("GetStorebags", "aa{sv}", SD_BUS_PARAM(storebags), getStorebags),
    SD_BUS_VTABLE_END,
};

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
    if (::sd_bus_message_get_expect_reply(call) <= 0) return 0;
    // The answer before it, if it is large, has been read: else this call would wait still.
    _answered = {};
    auto charge = _connection.account().charge(platform::UserAccount::Slot::Bytes, bytes);
    if (!charge) return -ENOBUFS;
    _answered = *std::move(charge);
    sd_bus_message* raw = nullptr;
    int result = ::sd_bus_message_new_method_return(call, &raw);
    const platform::BusMessage reply(raw);
    if (result >= 0) result = append(raw);
    if (result < 0) return result;
    _connection.noteQueuedBytes(bytes);
    return ::sd_bus_send(nullptr, raw, nullptr);
}

}  // namespace quorvane
