#include "tools/storebag/Warnings.h"

#include "platform/value/Text.h"
#include "tools/common/Failure.h"
#include "tools/storebag/CheckBag.h"

#include <cstdio>

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

}  // namespace quorvane::tools
