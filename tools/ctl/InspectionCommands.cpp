#include "tools/common/Output.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/Inspection.h"

#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

std::string_view textOr(const Dictionary& facts, std::string_view key, std::string_view otherwise) {
    const std::string* text = facts.string(key);
    return text != nullptr ? std::string_view(*text) : otherwise;
}

/// Where the accepted events are: "12 accepted: 10 posted, 2 held".
std::string eventsText(const Dictionary& events) {
    std::string text = fmt::format("{} accepted", events.unsignedInteger("accepted"));
    std::string_view separator = ": ";
    const auto add = [&](std::uint64_t count, std::string_view what) {
        if (count == 0) return;
        text += fmt::format("{}{} {}", separator, count, what);
        separator = ", ";
    };
    add(events.unsignedInteger("posted"), "posted");
    add(events.unsignedInteger("underWay"), "under way");
    add(events.unsignedInteger("held"), "held");
    add(events.unsignedInteger("refused"), "refused by the server");
    add(events.unsignedInteger("failed"), "without an answer");
    if (const Dictionary* reasons = events.dictionary("droppedBy"))
        for (const auto& [reason, count] : *reasons)
            add(count.unsignedInteger(), fmt::format("dropped ({})", reason));
    return text;
}

std::string eventsUnder(const Dictionary& facts) {
    const Dictionary* events = facts.dictionary("events");
    return events != nullptr ? eventsText(*events) : "";
}

void addUnserved(std::string& text, const Dictionary& facts, std::string_view indent) {
    const std::uint64_t unserved = facts.unsignedInteger("unserved");
    if (unserved > 0)
        text += fmt::format("{}{} events had no backend: the session is not started, or has no storebag\n",
                            indent, unserved);
}

std::string sessionText(const Dictionary& session) {
    std::string text = fmt::format(
        "session {} of process {} (user {}) since {}: client {}, service {}, type {}, {}\n",
        session.unsignedInteger("sessionID"), session.integer("process"), session.unsignedInteger("user"),
        dateUnder(session, "since"), textOr(session, "clientName", "without a name"),
        textOr(session, "serviceName", "without a name"), session.integer("clientType"),
        session.boolean("started") ? textOr(session, "storebagVersion", "no storebag version")
                                   : "not started");
    if (const Array* backends = session.array("backends"))
        for (const Value& value : *backends)
            if (const Dictionary* backend = value.dictionary())
                text += fmt::format("  {}: {}, {}; {}\n", textOr(*backend, "name", ""),
                                    textOr(*backend, "state", ""), textOr(*backend, "reasonText", ""),
                                    eventsUnder(*backend));
    addUnserved(text, session, "  ");
    return text;
}

std::string storebagText(const Dictionary& storebag) {
    return fmt::format("storebag {}: version {}; last asked {}: {}{}{}; next from {}\n",
                       textOr(storebag, "name", ""), textOr(storebag, "version", "(none)"),
                       dateUnder(storebag, "lastAttempt"), textOr(storebag, "outcome", ""),
                       storebag.find("reason") != nullptr ? ", " : "", textOr(storebag, "reason", ""),
                       dateUnder(storebag, "nextAttempt"));
}

std::string totalsText(const Dictionary& statistics) {
    std::string text =
        fmt::format("quorvaned {}{}\nevents: {}\n", textOr(statistics, "version", ""),
                    statistics.boolean("all") ? "" : " (of your own user)", eventsUnder(statistics));
    addUnserved(text, statistics, "");
    text += fmt::format("relayed {}, uploads {}, failed uploads {}\n", statistics.unsignedInteger("relayed"),
                        statistics.unsignedInteger("uploads"), statistics.unsignedInteger("failedUploads"));
    return text;
}

Array arrayOf(const std::vector<Dictionary>& dictionaries) {
    return Array(dictionaries.begin(), dictionaries.end());
}

/// Without its last line break, which is printed with the line.
void print(bool json, const Dictionary& fact, std::string text) {
    if (text.ends_with('\n')) text.pop_back();
    tools::printFact(json, fact, text);
}

}  // namespace

void run(const Status& command) {
    Inspection seen = inspect(command.daemon);
    std::erase_if(seen.sessions, isOwn);
    std::string text = totalsText(seen.statistics);
    for (const Dictionary& session : seen.sessions) text += sessionText(session);
    for (const Dictionary& storebag : seen.storebags) text += storebagText(storebag);
    print(command.daemon.json,
          {{"statistics", seen.statistics},
           {"sessions", arrayOf(seen.sessions)},
           {"storebags", arrayOf(seen.storebags)}},
          std::move(text));
}

void run(const Stats& command) {
    const Inspection seen = inspect(command.daemon);
    print(command.daemon.json, seen.statistics, totalsText(seen.statistics));
}

void run(const Storebags& command) {
    for (const Dictionary& storebag : inspect(command.daemon).storebags)
        print(command.daemon.json, storebag, storebagText(storebag));
}

}  // namespace quorvane::ctl
