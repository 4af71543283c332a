#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace quorvane::ctl {

enum class Gravity {
    Good,
    Warning,  ///< Something is not as it was probably meant, or some events are not reported.
    Fault,    ///< No event arrives, or what was set does not count.
};

/// What one check saw.
struct Finding {
    Gravity gravity = Gravity::Good;
    std::string subject;   ///< A file, or a part of the system.
    std::string text;      ///< How it is.
    std::string advice;    ///< What to do about it; empty where it is good.
    std::size_t line = 0;  ///< Of the file, counted from 1; 0 for the whole.
};

using Findings = std::vector<Finding>;

inline void append(Findings further, Findings& to) {
    std::move(further.begin(), further.end(), std::back_inserter(to));
}

inline Finding good(std::string subject, std::string text) {
    return {Gravity::Good, std::move(subject), std::move(text), {}};
}

inline Finding warning(std::string subject, std::string text, std::string advice, std::size_t line = 0) {
    return {Gravity::Warning, std::move(subject), std::move(text), std::move(advice), line};
}

inline Finding fault(std::string subject, std::string text, std::string advice, std::size_t line = 0) {
    return {Gravity::Fault, std::move(subject), std::move(text), std::move(advice), line};
}

}  // namespace quorvane::ctl
