#include "tools/ctl/CtlOptions.h"

#include "tools/common/CommandLine.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

constexpr const char* kDescription =
    "Reports to the quorvaned daemon from the command line, and asks it questions. Each run opens a session "
    "of its own and closes it at the end.";
constexpr const char* kFooter =
    "Exit status: 0 done, 1 failed, 2 usage, 3 the daemon cannot be reached or does not answer in time; of doctor 5 warnings, "
    "6 faults.";

void addDaemonOptions(CLI::App& command, DaemonOptions& options) {
    command.add_option("--socket", options.socket, "The daemon's socket, if not the one in QUORVANE_ROOT")
        ->type_name("FILE");
    command.add_option("--timeout", options.timeoutSeconds, "Seconds to wait for each answer; 0 has no end")
        ->type_name("N")
        ->capture_default_str();
    command.add_flag("--json", options.json, "Print JSON, one value a line");
}

void addSessionOptions(CLI::App& command, SessionOptions& options) {
    SessionInfo& info = options.sessionInfo;
    command.add_option("--client-type", info.clientType, "Kind of client; 5 to 11 have a storebag (5)")
        ->type_name("N")
        ->transform(tools::decimal())
        ->group("Session");
    command.add_option("--session-id", info.sessionID, "The session's number (1)")
        ->type_name("N")
        ->transform(tools::decimal())
        ->group("Session");
    command.add_option("--client-version", info.clientVersion, "The client's version")
        ->type_name("N")
        ->capture_default_str()
        ->transform(tools::decimal())
        ->group("Session");
    command.add_option("--client-name", options.clientName, "Client name of the user info")
        ->type_name("NAME")
        ->group("Session");
    command.add_option("--service-name", options.serviceName, "Service name of the user info")
        ->type_name("NAME")
        ->group("Session");
    command.add_flag("--batch", info.batchEvent, "Let events be collected and posted together")
        ->group("Session");
    command
        .add_flag("--require-user-info", info.requireUserInfo,
                  "Report under the rules of the client and service name; without them events are held")
        ->group("Session");
    addDaemonOptions(command, options);
}

void addEventOptions(CLI::App& command, EventOptions& options) {
    command.add_option("category", options.category, "The event's category, 0 to 65535")
        ->type_name("N")
        ->required()
        ->transform(tools::decimal());
    command.add_option("type", options.type, "The event's type, 0 to 65535")
        ->type_name("N")
        ->required()
        ->transform(tools::decimal());
    command
        .add_option("entries", options.entries,
                    "The payload: true, false and numbers as JSON has them, everything else a text")
        ->type_name("KEY=VALUE");
    command.add_option("--payload", options.payload, "The payload as a JSON object; KEY=VALUE adds to it")
        ->type_name("JSON");
}

/// With what all commands take.
template <typename Kind>
std::pair<CLI::App*, Kind&> addCommand(CLI::App& app, const char* name, const char* description,
                                       std::optional<Command>& command) {
    const std::pair<CLI::App*, Kind&> added = tools::addCommand<Kind>(app, name, description, command);
    Kind& read = added.second;
    if constexpr (requires { read.event; }) addEventOptions(*added.first, read.event);
    if constexpr (requires { read.session; })
        addSessionOptions(*added.first, read.session);
    else
        addDaemonOptions(*added.first, read.daemon);
    return added;
}

void addSend(CLI::App& app, std::optional<Command>& command) {
    auto [send, options] = addCommand<Send>(app, "send", "Send events and print the answers", command);
    tools::positive(send->add_option("--count", options.count, "How many times to send the event"))
        ->capture_default_str();
    send->add_flag("--now", options.now, "Real-time events: unbatched, to the real-time URL");
    send->add_flag("--promote", options.promote, "Let a sampled-out session report from here on");
    send->add_flag("--flush", options.flush, "Flush after the last event");
}

void addUploads(CLI::App& app, std::optional<Command>& command) {
    auto [upload, file] = addCommand<Upload>(app, "upload", "Upload a file", command);
    upload->add_option("file", file.file, "The file; it is removed when the upload server asks for it")
        ->type_name("FILE")
        ->required();
    auto [uploadLog, log] = addCommand<UploadLog>(app, "upload-log", "Upload log data", command);
    uploadLog->add_option("file", log.file, "A JSON array of the log's items; - for standard input")
        ->type_name("FILE")
        ->required();
}

void addListen(CLI::App& app, std::optional<Command>& command) {
    auto [listen, options] = addCommand<Listen>(
        app, "listen",
        "Print the events of the sessions of a client and service name until interrupted, as an aggregating "
        "client of theirs",
        command);
    tools::positive(listen->add_option("--count", options.count, "End after so many events"));
}

void addDoctor(CLI::App& app, std::optional<Command>& command) {
    auto [doctor, options] = addCommand<Doctor>(
        app, "doctor", "Check whether everything is in place for events to arrive, and tell what to do",
        command);
    doctor->footer(fmt::format(
        "Exit status: 0 all is good, {} warnings, {} faults. Run it as root: it reads what the daemon reads.",
        kDoctorWarnings, kDoctorFaults));
}

}  // namespace

std::optional<Command> readCommand(int argc, char** argv, int& status) {
    std::optional<Command> command;
    CLI::App app(kDescription, "quorvanectl");
    app.footer(kFooter);
    addSend(app, command);
    addCommand<Single>(app, "single", "Send one event without a session of its own", command);
    addCommand<Flush>(app, "flush", "Make a session's backends post what they hold", command);
    addCommand<States>(app, "states", "Print the backends in reporting state", command);
    addCommand<DisplayURL>(app, "display-url", "Print where a session's events can be looked at", command);
    addUploads(app, command);
    addListen(app, command);
    addCommand<Status>(app, "status",
                       "Tell of every session why it does or does not report, and what became of its events",
                       command);
    addCommand<Stats>(app, "stats", "Count what became of all events", command);
    addCommand<Storebags>(app, "storebags", "Tell how fetching each storebag last went", command);
    addDoctor(app, command);
    if (!tools::parse(app, argc, argv, status)) return std::nullopt;
    return command;
}

}  // namespace quorvane::ctl
