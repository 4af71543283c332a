#include "backends/HTTPSPostBackend.h"

#include "framework/PersistentIdentifier.h"
#include "platform/base/Log.h"
#include "platform/device/Consent.h"

namespace quorvane {

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::initWithName(const std::string& name,
                                                                 std::shared_ptr<const Dictionary> profile,
                                                                 const OptionalString& productFamily) {
    if (!accepts(profile.get(), productFamily)) return nullptr;
    return std::shared_ptr<HTTPSPostBackend>(new HTTPSPostBackend(name, std::move(profile), productFamily));
}

bool HTTPSPostBackend::accepts(const Dictionary* profile, const OptionalString& productFamily) {
    if (profile == nullptr || !productFamily) return false;
    if (profile->array("clients") != nullptr) return true;
    platform::logError("HTTPSPostBackend(initWithName): can't find the client list.");
    return false;
}

HTTPSPostBackend::HTTPSPostBackend(const std::string& name, std::shared_ptr<const Dictionary> profile,
                                   const OptionalString& productFamily)
    : QuorvaneBackend(name, std::move(profile), productFamily),
      _dnuEnabled(platform::diagnosticsSubmissionAllowed()),
      _uuidRespectDnu(getPersistentIdentifierForDNU(true)),
      _uuidOverrideDnu(getPersistentIdentifierForDNU(false)) {
    setDisplayURL(this->profile()->text("display_url"));
}

void HTTPSPostBackend::updateState() {
    const BackendState state = updateBackendState();
    setState(state, _reason);
}

}  // namespace quorvane
