#include "backends/PostTargets.h"

#include "platform/base/Log.h"
#include "util/DeviceFacts.h"

namespace quorvane {

using platform::logDebug;

PostTargets::PostTargets()
    : _postURL(daemonSetting("httpsPostURL")),
      _useDefaultPostURL(_postURL.has_value()),
      _realtimePostURL(daemonSetting("httpsRealtimePostURL")),
      _useDefaultRealtimePostURL(_realtimePostURL.has_value()) {
    if (_postURL) logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for postURL", *_postURL);
    if (_realtimePostURL)
        logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for realtimePostURL",
                 *_realtimePostURL);
}

bool PostTargets::update(const Dictionary& entry) {
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

}  // namespace quorvane
