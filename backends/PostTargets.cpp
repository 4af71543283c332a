#include "backends/PostTargets.h"

#include "platform/base/Log.h"
#include "platform/value/Url.h"
#include "util/Settings.h"

#include <string_view>
#include <utility>

namespace quorvane {

using platform::logDebug;

namespace {

void checkScheme(std::string_view key, const std::optional<std::string>& url) {
    if (url && !platform::hasScheme(*url))
        platform::logError(
            "HTTPSPostBackend(updateBackendState): '{}' holds no URL with a scheme, nothing is posted to {}",
            key, *url);
}

const std::string* sendable(const std::optional<std::string>& url) {
    return url && platform::hasScheme(*url) ? &*url : nullptr;
}

}  // namespace

PostTargets PostTargets::ofUserDefaults() {
    return {textSetting(Setting::PostURL), textSetting(Setting::RealtimePostURL)};
}

PostTargets::PostTargets(std::optional<std::string> postURL, std::optional<std::string> realtimePostURL)
    : _postURL(std::move(postURL)),
      _useDefaultPostURL(_postURL.has_value()),
      _realtimePostURL(std::move(realtimePostURL)),
      _useDefaultRealtimePostURL(_realtimePostURL.has_value()) {
    if (_postURL) logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for postURL", *_postURL);
    if (_realtimePostURL)
        logDebug("HTTPSPostBackend(initWithName): Using user default '{}' for realtimePostURL",
                 *_realtimePostURL);
    checkScheme("httpsPostURL", _postURL);
    checkScheme("httpsRealtimePostURL", _realtimePostURL);
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
            checkScheme("post_url", _postURL);
        }
    }
    if (_useDefaultRealtimePostURL && _realtimePostURL) return supplied;
    _useDefaultRealtimePostURL = false;
    // ... while the real-time URL is derived anew from every entry.
    if (const std::string* url = entry.string("realtime_post_url")) {
        _realtimePostURL = *url;
        logDebug("HTTPSPostBackend(updateBackendState): Storebag '{}' for realtimePostURL", *url);
        checkScheme("realtime_post_url", _realtimePostURL);
    } else {
        _realtimePostURL = _postURL;
        logDebug("HTTPSPostBackend(updateBackendState): realtimePostURL defaults to postURL '{}'",
                 platform::orNull(_postURL));
    }
    return supplied;
}

const Dictionary* PostTargets::updateFromFirst(const Array& clients) {
    for (const Value& client : clients)
        if (const Dictionary* entry = client.dictionary(); entry != nullptr && update(*entry)) return entry;
    return nullptr;
}

const std::string* PostTargets::ordinary() const {
    return sendable(_postURL);
}

const std::string* PostTargets::realtime() const {
    return sendable(_realtimePostURL);
}

}  // namespace quorvane
