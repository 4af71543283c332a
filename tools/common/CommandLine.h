#pragma once

#include "tools/common/Failure.h"

#include <CLI/CLI.hpp>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace quorvane::tools {

/// A subcommand whose options are read into a command of their own, handed on when it is the one given.
template <typename Kind, typename Command>
std::pair<CLI::App*, Kind&> addCommand(CLI::App& app, const char* name, const char* description,
                                       std::optional<Command>& command) {
    const auto read = std::make_shared<Kind>();
    CLI::App* subcommand = app.add_subcommand(name, description);
    subcommand->callback([&command, read] { command = *read; });
    return {subcommand, *read};
}

/// Takes a number with leading zeros for what it looks like, which the library takes for octal.
inline CLI::Validator decimal() {
    return CLI::Validator(
        [](std::string& text) {
            const std::size_t digits = text.find_first_not_of('0');
            if (digits != 0 && digits != std::string::npos && text[digits] >= '1' && text[digits] <= '9')
                text.erase(0, digits);
            return std::string();
        },
        "");
}

/// Reads the command line, which names one subcommand. False when there is nothing more to do, as after
/// --help or a wrong command line, which are answered here; the program's exit status is then set.
inline bool parse(CLI::App& app, int argc, char** argv, int& status) {
    app.set_version_flag("--version", QUORVANE_VERSION);
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? 0 : kUsage;
        return false;
    }
}

}  // namespace quorvane::tools
