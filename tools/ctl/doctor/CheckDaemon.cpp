#include "framework/Keys.h"
#include "platform/base/Root.h"
#include "platform/device/Consent.h"
#include "tools/common/Failure.h"
#include "tools/ctl/Inspection.h"
#include "tools/ctl/doctor/CheckStorebags.h"
#include "tools/ctl/doctor/Checks.h"

#include <optional>
#include <string>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

Finding answerFinding(const Dictionary& statistics, const Dictionary& device) {
    const std::string text =
        fmt::format("it answers: version {}, process {}", statistics.text("version").value_or("unknown"),
                    device.integer("process"));
    if (device.boolean("confined")) return good("daemon", text + ", confined");
    return fault("daemon", text + ", not confined", "restart it; its log tells of the sandbox");
}

Finding countryFinding(const Dictionary& device) {
    if (const auto country = device.text("country")) return good("country", "the daemon is in " + *country);
    return warning("country",
                   "the daemon's locale names none: no session that a client entry decides on reports",
                   "set LANG, as in en_US.UTF-8, in /etc/locale.conf, or for the daemon alone with "
                   "`systemctl edit quorvaned`, and restart it");
}

Finding consentFinding(bool consent, const std::string& who) {
    if (consent) return good("consent", "the user consents, as " + who + " sees it");
    return warning(
        "consent",
        "the user does not consent, as " + who +
            " sees it: sessions that require user info report "
            "only where an entry overrides that",
        fmt::format("if the user does, write {} = true into {}, so that the daemon's user can read it",
                    platform::kConsentKey, platform::rooted(platform::kConsentFile)));
}

Finding unreached(const std::string& why) {
    return fault("daemon", why,
                 "systemctl enable --now quorvaned.socket; why a daemon does not start tells "
                 "`journalctl -u quorvaned`");
}

Findings withoutDaemon(const std::string& why) {
    Findings findings{unreached(why),
                      consentFinding(platform::diagnosticsSubmissionAllowed(), "this program")};
    append(checkAccess(std::nullopt), findings);
    append(checkStorebags({}), findings);
    return findings;
}

}  // namespace

Findings checkDaemon(const DaemonOptions& options) {
    Inspection seen;
    try {
        seen = inspect(options);
    } catch (const tools::Failure& failure) {
        return withoutDaemon(failure.what());
    }
    const Dictionary* device = seen.statistics.dictionary("device");
    if (device == nullptr) return withoutDaemon("it is of another version than this program");
    Findings findings{answerFinding(seen.statistics, *device), countryFinding(*device),
                      consentFinding(device->boolean("consent"), "the daemon")};
    append(checkAccess(static_cast<pid_t>(device->integer("process"))), findings);
    append(checkStorebags(seen.storebags), findings);
    return findings;
}

}  // namespace quorvane::ctl
