#pragma once

#include "platform/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quorvane::platform {

/// The power log: what the device's power accounting reads. It is the system's journal, or where no journal
/// runs, or QUORVANE_ROOT moves the process away from the system's, a file; a process keeps to its first
/// choice.

/// An event with more entries, or more bytes of keys and values in memory, is not written; a warning says so.
inline constexpr std::size_t kRegisteredEventEntries = 1'000;
inline constexpr std::size_t kRegisteredEventBytes = 256u << 10;

/// Writes one event under the agent's number and the event's name. What keeps it from being written costs a
/// log line. Blocks on the journal's socket or the file; thread-safe.
void writeRegisteredEvent(std::uint32_t agentIdentifier, std::string_view eventName,
                          const Dictionary& dictionary);

/// As one journal entry, for `journalctl MESSAGE_ID=909de68d00f643b896df1a26793e5518`: POWERLOG_AGENT,
/// POWERLOG_EVENT and, for each entry of the dictionary, POWERLOG_VALUE_ and its key in capitals with "_" for
/// what a field's name cannot hold, cut to 64 characters. Texts and data stand as they are, other values as
/// they print; the MESSAGE has everything as it prints.
bool writeEventToJournal(std::uint32_t agentIdentifier, std::string_view eventName,
                         const Dictionary& dictionary);

/// As one line of JSON appended to /var/lib/quorvane/power-log.jsonl: "time" in seconds since 1970, "agent",
/// "event", and the dictionary under "values" with dates as they print and data in base64. Past 1 MiB the
/// file becomes power-log.1.jsonl, in place of the one before, and a new one begins.
bool appendEventToPowerLogFile(std::uint32_t agentIdentifier, std::string_view eventName,
                               const Dictionary& dictionary);

}  // namespace quorvane::platform
