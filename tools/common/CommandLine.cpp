#include "tools/common/CommandLine.h"

#include "tools/common/Nearest.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

std::vector<const CLI::App*> subcommandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

/// Whether the word is a subcommand; if not, says so, and which one was probably meant.
bool isSubcommand(const CLI::App& app, const std::string& word) {
    std::vector<std::string> names;
    for (const CLI::App* known : subcommandsOf(app)) names.push_back(known->get_name());
    if (std::find(names.begin(), names.end(), word) != names.end()) return true;
    const auto meant = nearest(word, names);
    fmt::print(stderr, "{} is no subcommand{}\nRun with --help for more information.\n", word,
               meant ? fmt::format("; did you mean {}?", *meant) : "");
    return false;
}

/// Whether an option of the name, of any subcommand, has a value that is a word of its own.
bool takesValue(const CLI::App& app, const std::string& name) {
    const auto known = subcommandsOf(app);
    return std::any_of(known.begin(), known.end(), [&](const CLI::App* subcommand) {
        const CLI::Option* option = subcommand->get_option_no_throw(name);
        return option != nullptr && option->get_items_expected_min() > 0;
    });
}

/// Where the first word stands that is neither an option nor an option's value; argc when there is none, or
/// when an option of the program itself comes first.
int placeOfSubcommand(const CLI::App& app, int argc, char** argv) {
    for (int at = 1; at < argc; ++at) {
        const std::string word = argv[at];
        if (!word.starts_with('-')) return at;
        if (app.get_option_no_throw(word) != nullptr) return argc;
        if (takesValue(app, word)) ++at;
    }
    return argc;
}

/// Says of the first word that looks like an option, and is none, which one was probably meant.
void tellMeantOption(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* subcommand : app.get_subcommands())
        for (const CLI::Option* option : subcommand->get_options())
            for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    for (const std::string& word : app.remaining(true)) {
        if (!word.starts_with("--")) continue;
        if (const auto meant = nearest(word.substr(0, word.find('=')), names))
            fmt::print(stderr, "{} is no option; did you mean {}?\n", word, *meant);
        return;
    }
}

}  // namespace

CLI::Validator decimal() {
    return CLI::Validator(
        [](std::string& text) {
            const std::size_t digits = text.find_first_not_of('0');
            if (digits != 0 && digits != std::string::npos && text[digits] >= '1' && text[digits] <= '9')
                text.erase(0, digits);
            return std::string();
        },
        "");
}

bool parse(CLI::App& app, int argc, char** argv, int& status) {
    app.set_version_flag("--version", QUORVANE_VERSION);
    app.require_subcommand(1);
    const int place = placeOfSubcommand(app, argc, argv);
    if (place < argc) {
        if (!isSubcommand(app, argv[place])) {
            status = kUsage;
            return false;
        }
        std::rotate(argv + 1, argv + place, argv + place + 1);
    }
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError)) tellMeantOption(app);
        status = app.exit(error) == 0 ? 0 : kUsage;
        return false;
    }
}

}  // namespace quorvane::tools
