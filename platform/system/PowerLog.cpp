#include "platform/system/PowerLog.h"

#include "platform/base/Clock.h"
#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/crypto/Crypto.h"
#include "platform/formats/Json.h"
#include "platform/value/Text.h"

#include <sys/uio.h>
// The place in the source says nothing to whoever reads an event.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

constexpr std::string_view kJournalSocket = "/run/systemd/journal/socket";
constexpr std::string_view kFile = "/var/lib/quorvane/power-log.jsonl";
constexpr std::string_view kEarlierFile = "/var/lib/quorvane/power-log.1.jsonl";
constexpr std::size_t kFileBytes = 1u << 20;
constexpr std::size_t kFieldNameCharacters = 64;

/// The journal drops silently what is sent to it while it does not run.
bool journalRuns() {
    static const bool runs = fileExists(rooted(kJournalSocket));
    return runs;
}

/// Letters, digits and underscores alone make a field's name (systemd.journal-fields(7)).
std::string fieldName(std::string_view key) {
    std::string name = "POWERLOG_VALUE_";
    for (const char c : key.substr(0, kFieldNameCharacters - name.size())) {
        const bool small = c >= 'a' && c <= 'z';
        const bool kept = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        name += small ? static_cast<char>(c - 'a' + 'A') : kept ? c : '_';
    }
    return name;
}

std::string field(const Dictionary::Entry& entry) {
    std::string text = fieldName(entry.key) + '=';
    if (const Data* data = entry.value.data())
        text.append(data->begin(), data->end());
    else
        text += entry.value.description();
    return text;
}

/// The value with dates, data and numbers that are not finite as texts, for which JSON has no form.
Value jsonForm(const Value& value);

Dictionary jsonForm(const Dictionary& dictionary) {
    std::vector<Dictionary::Entry> entries;
    entries.reserve(dictionary.size());
    for (const auto& [key, value] : dictionary) entries.push_back({key, jsonForm(value)});
    return Dictionary::fromEntries(std::move(entries));
}

Array jsonForm(const Array& array) {
    Array elements;
    elements.reserve(array.size());
    for (const Value& element : array) elements.push_back(jsonForm(element));
    return elements;
}

Value jsonForm(const Value& value) {
    return value.visit([&](const auto& held) -> Value {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, Data>)
            return base64Encode(held);
        else if constexpr (std::is_same_v<Held, Array> || std::is_same_v<Held, Dictionary>)
            return jsonForm(held);
        else if constexpr (std::is_same_v<Held, double>)
            return std::isfinite(held) ? value : Value(value.description());
        else if constexpr (std::is_same_v<Held, Date>)
            return value.description();
        else
            return value;
    });
}

std::optional<std::string> jsonLine(std::uint32_t agentIdentifier, std::string_view eventName,
                                    const Dictionary& dictionary) {
    const TimeValue now = timeOfDay();
    const Dictionary line{{"time", static_cast<double>(now.seconds) + now.microseconds / 1e6},
                          {"agent", agentIdentifier},
                          {"event", eventName},
                          {"values", jsonForm(dictionary)}};
    const auto json = compactJson(line);
    if (!json) return std::nullopt;
    std::string text(json->begin(), json->end());
    text += '\n';
    return text;
}

/// Puts a full file aside, and makes one when there is none.
void prepareFile(const std::string& path) {
    std::error_code error;
    if (std::filesystem::file_size(path, error) >= kFileBytes && !error)
        std::filesystem::rename(path, rooted(kEarlierFile), error);
    createFile(path);
}

bool isWithinBounds(const Dictionary& dictionary) {
    return dictionary.size() <= kRegisteredEventEntries && heldBytes(dictionary) <= kRegisteredEventBytes;
}

}  // namespace

void writeRegisteredEvent(std::uint32_t agentIdentifier, std::string_view eventName,
                          const Dictionary& dictionary) {
    if (!isWithinBounds(dictionary)) {
        logWarning("writeRegisteredEvent: Event {} of agent {} is too large for the power log", eventName,
                   agentIdentifier);
        return;
    }
    const auto write = journalRuns() ? writeEventToJournal : appendEventToPowerLogFile;
    if (!write(agentIdentifier, eventName, dictionary))
        logError("writeRegisteredEvent: Cannot write event {} of agent {} to the power log", eventName,
                 agentIdentifier);
}

bool writeEventToJournal(std::uint32_t agentIdentifier, std::string_view eventName,
                         const Dictionary& dictionary) {
    std::vector<std::string> fields{
        "MESSAGE_ID=909de68d00f643b896df1a26793e5518",
        "PRIORITY=6",
        fmt::format("MESSAGE={}: {}", eventName, escapedControls(dictionary.description(), "")),
        fmt::format("POWERLOG_AGENT={}", agentIdentifier),
        fmt::format("POWERLOG_EVENT={}", eventName),
    };
    for (const Dictionary::Entry& entry : dictionary) fields.push_back(field(entry));
    std::vector<iovec> parts;
    parts.reserve(fields.size());
    for (std::string& text : fields) parts.push_back({text.data(), text.size()});
    return ::sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0;
}

bool appendEventToPowerLogFile(std::uint32_t agentIdentifier, std::string_view eventName,
                               const Dictionary& dictionary) {
    static Mutex mutex;
    const auto line = jsonLine(agentIdentifier, eventName, dictionary);
    if (!line) return false;
    const std::string path = rooted(kFile);
    const MutexLock lock(mutex);
    prepareFile(path);
    return appendToFile(path, *line) == AppendResult::Appended;
}

}  // namespace quorvane::platform
