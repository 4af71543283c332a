#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace quorvane::bench {

/// The median of a figure over rounds, of which there is at least one.
template <typename Round, typename Function>
auto median(const std::vector<Round>& rounds, const Function& of) {
    std::vector<decltype(of(rounds.front()))> values;
    values.reserve(rounds.size());
    for (const Round& round : rounds) values.push_back(of(round));
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace quorvane::bench
