#pragma once

#include "tools/common/Failure.h"
#include "tools/common/Nearest.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

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

/// Whether the word is a subcommand; if not, says so, and which one was probably meant.
inline bool isSubcommand(const CLI::App& app, const std::string& word) {
    std::vector<std::string> names;
    for (const CLI::App* known : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(known->get_name());
    if (std::find(names.begin(), names.end(), word) != names.end()) return true;
    const auto meant = nearest(word, names);
    fmt::print(stderr, "{} is no subcommand{}\nRun with --help for more information.\n", word,
               meant ? fmt::format("; did you mean {}?", *meant) : "");
    return false;
}

/// Reads the command line, which names one subcommand. False when there is nothing more to do, as after
/// --help or a wrong command line, which are answered here; the program's exit status is then set.
inline bool parse(CLI::App& app, int argc, char** argv, int& status) {
    app.set_version_flag("--version", QUORVANE_VERSION);
    app.require_subcommand(1);
    if (argc > 1 && argv[1][0] != '-' && !isSubcommand(app, argv[1])) {
        status = kUsage;
        return false;
    }
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? 0 : kUsage;
        return false;
    }
}

}  // namespace quorvane::tools
