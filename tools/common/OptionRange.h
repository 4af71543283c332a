#pragma once

#include <CLI/CLI.hpp>

#include <fmt/format.h>

namespace quorvane::tools {

/// Takes whole numbers from 1 on, without a word of that in --help.
inline CLI::Option* positive(CLI::Option* option) {
    return option->type_name("N")->check(CLI::Validator(CLI::PositiveNumber).description(""));
}

/// Takes numbers from the first to the last, which --help tells in words.
template <typename Number>
CLI::Option* between(CLI::Option* option, Number first, Number last) {
    return option->type_name("N")
        ->description(fmt::format("{}; {} to {}", option->get_description(), first, last))
        ->check(CLI::Range(first, last).description(""));
}

}  // namespace quorvane::tools
