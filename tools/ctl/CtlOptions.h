#pragma once

#include <quorvane/Session.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace quorvane::ctl {

/// How the daemon is reached, and how its answers are printed.
struct DaemonOptions {
    std::string socket;  ///< Empty for the usual one.
    std::uint32_t timeoutSeconds = 60;
    bool json = false;
};

/// Who reports.
struct SessionOptions : DaemonOptions {
    SessionInfo sessionInfo{.sessionID = 1, .clientType = 5, .clientVersion = 1};
    std::optional<std::string> clientName;
    std::optional<std::string> serviceName;
};

struct EventOptions {
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    std::vector<std::string> entries;  ///< "KEY=VALUE" each.
    std::optional<std::string> payload;
};

struct Send {
    SessionOptions session;
    EventOptions event;
    std::uint32_t count = 1;
    bool now = false;
    bool promote = false;
    bool flush = false;
};

struct Single {
    SessionOptions session;
    EventOptions event;
};

struct Flush {
    SessionOptions session;
};

struct States {
    SessionOptions session;
};

struct DisplayURL {
    SessionOptions session;
};

struct Upload {
    SessionOptions session;
    std::string file;
};

struct UploadLog {
    SessionOptions session;
    std::string file;
};

struct Listen {
    SessionOptions session;
    std::optional<std::uint64_t> count;
};

struct Status {
    DaemonOptions daemon;
};

struct Stats {
    DaemonOptions daemon;
};

struct Storebags {
    DaemonOptions daemon;
};

/// Exit statuses of the doctor that found something: nothing worse than warnings, or faults.
inline constexpr int kDoctorWarnings = 5;
inline constexpr int kDoctorFaults = 6;

struct Doctor {
    DaemonOptions daemon;
};

using Command = std::variant<Send, Single, Flush, States, DisplayURL, Upload, UploadLog, Listen, Status,
                             Stats, Storebags, Doctor>;

/// Reads the command line. Nothing when the program is to end at once with the status: help was asked for, or
/// something in the command line is wrong and has been told.
std::optional<Command> readCommand(int argc, char** argv, int& status);

}  // namespace quorvane::ctl
