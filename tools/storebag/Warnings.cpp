#include "tools/storebag/Warnings.h"

#include "platform/value/Text.h"
#include "storebag/SelectStorebag.h"
#include "tools/common/Failure.h"
#include "tools/storebag/CheckBag.h"
#include "util/Environment.h"

#include <cstdio>
#include <optional>

#include <fmt/format.h>

namespace quorvane::tools {

void warnAbout(const Dictionary& bag, std::string_view name, bool strict) {
    const auto findings = checkBag(bag);
    for (const std::string& finding : findings)
        fmt::print(stderr, "quorvane-storebag: warning: {}: {}\n", name,
                   platform::escapedControls(finding, ""));
    if (strict && !findings.empty())
        throw Failure(fmt::format("{}: {} warning{}, and --strict is given", name, findings.size(),
                                  findings.size() == 1 ? "" : "s"));
}

void refuseUntakeable(const Dictionary& bag, std::string_view name) {
    std::optional<BagFault> fault;
    for (const std::string_view section : kStorebagSections) {
        fault = faultOf(bag, section);
        if (!fault) return;
        if (fault == BagFault::NoVersion) break;
    }
    throw Failure(fmt::format("{}: no device takes a bag without a {}", name,
                              fault == BagFault::NoVersion ? "version" : "section of an environment"));
}

}  // namespace quorvane::tools
