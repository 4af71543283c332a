#include "platform/base/Log.h"
#include "tools/common/Failure.h"
#include "tools/common/Output.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/doctor/Checks.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

std::string_view nameOf(Gravity gravity) {
    static constexpr std::array<std::string_view, 3> names{"good", "warning", "fault"};
    return names.at(static_cast<std::size_t>(gravity));
}

std::string textOf(const Finding& finding) {
    std::string text = fmt::format("{:<8} {}", nameOf(finding.gravity), finding.subject);
    if (finding.line > 0) text += fmt::format(", line {}", finding.line);
    text += ": " + finding.text;
    if (!finding.advice.empty()) text += "\n         -> " + finding.advice;
    return text;
}

Dictionary factOf(const Finding& finding) {
    Dictionary fact{
        {"gravity", nameOf(finding.gravity)}, {"subject", finding.subject}, {"finding", finding.text}};
    if (finding.line > 0) fact.set("line", std::uint64_t{finding.line});
    if (!finding.advice.empty()) fact.set("advice", finding.advice);
    return fact;
}

/// Prints what a check saw, and counts it by gravity.
class Report {
  public:
    explicit Report(bool json) : _json(json) {}

    void add(const Findings& findings) {
        for (const Finding& finding : findings) {
            tools::printFact(_json, factOf(finding), textOf(finding));
            ++_counts.at(static_cast<std::size_t>(finding.gravity));
        }
    }

    void end() const {
        const auto count = [&](Gravity gravity) { return _counts.at(static_cast<std::size_t>(gravity)); };
        const std::size_t faults = count(Gravity::Fault), warnings = count(Gravity::Warning);
        if (faults + warnings == 0) return;
        throw tools::Failure(fmt::format("faults: {}, warnings: {}", faults, warnings),
                             faults > 0 ? kDoctorFaults : kDoctorWarnings);
    }

  private:
    bool _json;
    std::array<std::size_t, 3> _counts{};
};

}  // namespace

void run(const Doctor& command) {
    // The daemon's own code writes log lines about what the findings tell.
    platform::setLogSink([](platform::LogLevel, std::string_view) {});
    Report report(command.daemon.json);
    // Before the first thread.
    report.add(checkSandbox());
    report.add(checkConfiguration());
    report.add(checkTrust());
    report.add(checkDevice());
    report.add(checkDaemon(command.daemon));
    report.end();
}

}  // namespace quorvane::ctl
