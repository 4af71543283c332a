#include "backends/HTTPSPostBackend.h"

#include "framework/PersistentIdentifier.h"
#include "platform/base/Log.h"
#include "platform/device/Consent.h"
#include "util/DeviceFacts.h"

namespace quorvane {

using platform::logDebug;

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::initWithName(const std::string& name,
                                                                 std::shared_ptr<const Dictionary> profile,
                                                                 const OptionalString& productFamily) {
    if (profile == nullptr || !productFamily) return nullptr;
    if (profile->array("clients") == nullptr) {
        platform::logError("HTTPSPostBackend(initWithName): can't find the client list.");
        return nullptr;
    }
    return std::shared_ptr<HTTPSPostBackend>(new HTTPSPostBackend(name, std::move(profile), productFamily));
}

HTTPSPostBackend::HTTPSPostBackend(const std::string& name, std::shared_ptr<const Dictionary> profile,
                                   const OptionalString& productFamily)
    : QuorvaneBackend(name, std::move(profile), productFamily),
      _postURL(daemonSetting("httpsPostURL")),
      _useDefaultPostURL(_postURL.has_value()),
      _realtimePostURL(daemonSetting("httpsRealtimePostURL")),
      _useDefaultRealtimePostURL(_realtimePostURL.has_value()),
      _dnuEnabled(platform::diagnosticsSubmissionAllowed()),
      _uuidRespectDnu(getPersistentIdentifierForDNU(true)),
      _uuidOverrideDnu(getPersistentIdentifierForDNU(false)) {
    if (_postURL) logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for postURL", *_postURL);
    if (_realtimePostURL)
        logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for realtimePostURL",
                 *_realtimePostURL);
    setDisplayURL(this->profile()->text("display_url"));
}

bool HTTPSPostBackend::updatePostLink(const Dictionary& entry) {
    bool supplied = false;
    if (!_useDefaultPostURL || !_postURL) {
        _useDefaultPostURL = false;
        // An entry without a URL keeps the one in force ...
        if (const std::string* url = entry.string("post_url")) {
            _postURL = *url;
            supplied = true;
            logDebug("HTTPSPostBackend(updateBackendState): Storebag '{}' for postURL", *url);
        }
    }
    if (_useDefaultRealtimePostURL && _realtimePostURL) return supplied;
    _useDefaultRealtimePostURL = false;
    // ... while the real-time URL is derived anew from every entry.
    if (const std::string* url = entry.string("realtime_post_url")) {
        _realtimePostURL = *url;
        logDebug("HTTPSPostBackend(updateBackendState): Storebag '{}' for realtimePostURL", *url);
    } else {
        _realtimePostURL = _postURL;
        logDebug("HTTPSPostBackend(updateBackendState): realtimePostURL defaults to postURL '{}'",
                 platform::orNull(_postURL));
    }
    return supplied;
}

void HTTPSPostBackend::updateState() {
    setState(updateBackendState());
}

}  // namespace quorvane
