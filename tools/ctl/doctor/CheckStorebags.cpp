#include "tools/ctl/doctor/CheckStorebags.h"

#include "framework/QuorvaneBundle.h"
#include "platform/base/Clock.h"
#include "platform/base/Root.h"
#include "platform/device/UserDefaults.h"
#include "platform/http/TrustedCertificates.h"
#include "storebag/SelectStorebag.h"
#include "storebag/StorebagNames.h"
#include "tools/ctl/Inspection.h"
#include "util/Environment.h"
#include "util/Settings.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

constexpr std::int32_t kUsualType = 5;
constexpr std::int32_t kLastType = 11;
constexpr std::int64_t kToleratedSeconds = 300;

std::string adviceFor(const FetchAttempt& attempt) {
    const std::string url = fmt::format("{} {} in {}", textSetting(Setting::StorebagURL) ? "check" : "set",
                                        ruleOf(Setting::StorebagURL).key,
                                        platform::userDefaultsFile(suiteOf(Setting::StorebagURL)));
    if (attempt.httpStatus == 0)
        return fmt::format("{}; check the network and, where a certificate is refused, {} and the clock", url,
                           platform::rooted(platform::kTrustFolder));
    if (attempt.httpStatus >= 300) return url + ", and that the server has a storebag of this name";
    return fmt::format(
        "sign the bag, with a version and the section {}, with the private key that belongs to {}: "
        "quorvane-storebag sign; then quorvane-storebag verify",
        environmentSectionKey(environmentType()), platform::rooted(kPublicKeyFile));
}

/// Of the form "Thu, 26 Nov 2026 13:02:19 GMT" (RFC 9110, section 5.6.7).
std::optional<std::int64_t> secondsOf(const std::string& httpDate) {
    std::tm time{};
    if (::strptime(httpDate.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &time) == nullptr) return std::nullopt;
    return ::timegm(&time);
}

std::optional<Finding> clockFinding(const FetchAttempt& attempt) {
    const auto server = attempt.serverTime ? secondsOf(*attempt.serverTime) : std::nullopt;
    if (!server) return std::nullopt;
    const std::int64_t ahead = platform::timeOfDay().seconds - *server;
    if (std::abs(ahead) <= kToleratedSeconds) return std::nullopt;
    return warning("clock",
                   fmt::format("it is {} s {} the storebag server's", std::abs(ahead),
                               ahead > 0 ? "ahead of" : "behind"),
                   "set the clock, or have it kept by a time service: events bear its time");
}

/// What the daemon saw last, where that differs from what comes now.
std::optional<Finding> lastAttemptFinding(const std::string& subject, const Dictionary* told) {
    if (told == nullptr || told->text("outcome") == "received" || told->text("outcome") == "unchanged")
        return std::nullopt;
    return warning(
        subject,
        fmt::format("it can be fetched now, but the daemon could not: {}", told->text("reason").value_or("")),
        fmt::format("systemctl restart quorvaned; else it tries again with the first session after {}",
                    dateUnder(*told, "nextAttempt")));
}

void checkStorebag(std::int32_t type, const std::string& name, const Dictionary* told, Findings& findings) {
    const std::string subject = "storebag " + name;
    std::int32_t maxAge = 0;
    std::optional<std::string> version;
    bool notModified = false;
    FetchAttempt attempt;
    fetchStorebagForEnvironmentAndClientType(type, maxAge, version, notModified, nullptr, &attempt);
    // Once is enough.
    if (auto clock = clockFinding(attempt); clock && findings.empty()) findings.push_back(*std::move(clock));
    if (attempt.outcome != FetchAttempt::Outcome::Received) {
        findings.push_back(
            fault(subject, fmt::format("{}: {}", attempt.url, attempt.reason), adviceFor(attempt)));
        return;
    }
    findings.push_back(
        good(subject, fmt::format("version {} from {}, well signed", version.value_or(""), attempt.url)));
    if (auto last = lastAttemptFinding(subject, told)) findings.push_back(*std::move(last));
}

const Dictionary* named(const std::string& name, const std::vector<Dictionary>& storebags) {
    for (const Dictionary& storebag : storebags)
        if (storebag.text("name") == name) return &storebag;
    return nullptr;
}

}  // namespace

Findings checkStorebags(const std::vector<Dictionary>& told) {
    Findings findings;
    // Types 7 and 11 share one.
    for (std::int32_t type = kUsualType; type < kLastType; ++type) {
        const auto name = storebagNameForClientType(type);
        const Dictionary* known = name ? named(*name, told) : nullptr;
        const bool isUsual = type == kUsualType && told.empty();
        if (name && (known != nullptr || isUsual)) checkStorebag(type, *name, known, findings);
    }
    return findings;
}

}  // namespace quorvane::ctl
