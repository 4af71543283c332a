#pragma once

#include "tools/common/Failure.h"
#include "tools/common/OptionRange.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
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
CLI::Validator decimal();

/// Reads the command line, which names one subcommand; that one's options may also stand before it. False
/// when there is nothing more to do, as after --help or a wrong command line, which are answered here; the
/// program's exit status is then set.
bool parse(CLI::App& app, int argc, char** argv, int& status);

}  // namespace quorvane::tools
