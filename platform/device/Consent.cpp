#include "platform/device/Consent.h"

#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/formats/TomlFile.h"

#include <string>

namespace quorvane::platform {

bool diagnosticsSubmissionAllowed() {
    const std::string file = rooted(kConsentFile);
    const Dictionary configuration = readConfiguration(file);
    const Value* allowed = configuration.find(kConsentKey);
    if (allowed == nullptr) return false;
    if (allowed->kind() == Value::Kind::Boolean) return allowed->boolean();
    logError("diagnosticsSubmissionAllowed: {}: diagnostics_submission: true or false is expected", file);
    return false;
}

}  // namespace quorvane::platform
