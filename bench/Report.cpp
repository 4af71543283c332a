#include "bench/Report.h"

#include <cstdio>

namespace quorvane::bench {

namespace {

/// What a quiet machine does by itself, and a little more.
constexpr double kMostOthersShare = 0.1;

bool g_missed = false;
bool g_unjudged = false;

const char* verdict(bool kept) {
    if (!kept) g_missed = true;
    return kept ? "kept" : "MISSED";
}

}  // namespace

void heading(std::string_view title) {
    fmt::print("\n{}\n", title);
    std::fflush(stdout);
}

void row(std::string_view name, std::string_view value) {
    fmt::print("  {:<58} {}\n", name, value);
    std::fflush(stdout);
}

void boundedRow(std::string_view name, double value, double bound, std::string_view unit) {
    row(name, "{:.2f}{} (at most {:g}{}: {})", value, unit, bound, unit, verdict(value <= bound));
}

void timedRow(std::string_view name, double value, double bound, double othersShare) {
    const bool judged = value <= bound || othersShare <= kMostOthersShare;
    if (!judged) g_unjudged = true;
    row(name, "{:.2f} (at most {:g}: {}; others took {:.0f} % of the machine)", value, bound,
        judged ? verdict(value <= bound) : "too busy to judge", 100 * othersShare);
}

void countRow(std::string_view name, std::uint64_t counted, std::uint64_t expected) {
    row(name, "{} of {} ({})", counted, expected, verdict(counted == expected));
}

bool anyMissed() {
    return g_missed;
}

bool anyUnjudged() {
    return g_unjudged;
}

}  // namespace quorvane::bench
