#pragma once

#include <optional>
#include <string_view>

#include <fmt/format.h>

namespace quorvane::bench {

/// The report on standard output: headings with rows below, each shown as soon as it is measured.

void heading(std::string_view title);

void row(std::string_view name, std::string_view value);

template <typename... Args>
void row(std::string_view name, fmt::format_string<Args...> value, Args&&... args) {
    row(name, std::string_view(fmt::format(value, std::forward<Args>(args)...)));
}

/// A row that also says whether the value keeps its bound.
void boundedRow(std::string_view name, double value, double bound, std::string_view unit = "");

/// A bounded row of a ratio of times. A value past the bound is not judged when others took up too much of
/// the machine, as a share in [0, 1], while it was measured: caches and cores that are shared slow some work
/// more than other work.
void timedRow(std::string_view name, double value, double bound, double othersShare);

/// A row that says whether the counts agree; a benchmark that loses events measures nothing.
void countRow(std::string_view name, std::uint64_t counted, std::uint64_t expected);

/// Whether any bounded row or count failed so far.
bool anyMissed();
/// Whether any timed row could not be judged so far.
bool anyUnjudged();

}  // namespace quorvane::bench
