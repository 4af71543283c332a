#include "tools/ctl/PrintStates.h"

#include "tools/common/Output.h"

#include <string>
#include <vector>

#include <fmt/format.h>

namespace quorvane::ctl {

void printStates(bool json, const ReportingStates& states) {
    const std::vector<std::string> names = states.value_or(std::vector<std::string>());
    std::string text = fmt::format("reporting: {}", fmt::join(names, " "));
    if (names.empty()) text += states ? "none" : "none, there is no storebag";
    tools::printFact(
        json, {{"storebag", states.has_value()}, {"reporting", Array(names.begin(), names.end())}}, text);
}

}  // namespace quorvane::ctl
