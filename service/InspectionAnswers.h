#pragma once

#include "backends/EventMonitor.h"
#include "platform/value/Value.h"
#include "session/SessionView.h"
#include "storebag/StorebagStatus.h"

#include <sys/types.h>

#include <optional>
#include <vector>

namespace quorvane {

/// The answers of the inspection as values; docs/DBUS.md tells their keys. Thread-safe.

/// The process's counts, or with a user those of his sessions that are there.
Dictionary statisticsAnswer(std::optional<uid_t> user);

/// What there is to tell of the session. Texts of its client are cut at some length.
Dictionary sessionAnswer(const SessionView& session, const std::vector<StorebagStatus>& storebags);

/// What a monitor is told of events.
Dictionary eventAnswer(const EventNews& news);

Dictionary storebagAnswer(const StorebagStatus& storebag);

}  // namespace quorvane
