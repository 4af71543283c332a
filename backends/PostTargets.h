#pragma once

#include "platform/value/Value.h"

#include <optional>
#include <string>
#include <utility>

namespace quorvane {

/// The URLs that an HTTPS backend posts to: the user defaults' where they are set, else its client entries'.
/// Not thread-safe.
class PostTargets {
  public:
    /// With the URLs that no client entry changes, if there are any.
    PostTargets(std::optional<std::string> postURL, std::optional<std::string> realtimePostURL);
    /// Those that this device's user defaults "httpsPostURL" and "httpsRealtimePostURL" set.
    static PostTargets ofUserDefaults();

    /// Takes the entry's URLs where no user default is in force; whether it supplied the ordinary one.
    bool update(const Dictionary& entry);
    /// Takes the URLs of one entry after the other until one supplies the ordinary one; that entry, or null.
    const Dictionary* updateFromFirst(const Array& clients);

    const std::optional<std::string>& postURL() const { return _postURL; }
    void setPostURL(std::optional<std::string> postURL) { _postURL = std::move(postURL); }

    /// The URL to post to; null when there is none or none with a scheme, which has cost an error line. Valid
    /// until the targets change.
    const std::string* ordinary() const;
    const std::string* realtime() const;

  private:
    std::optional<std::string> _postURL;
    bool _useDefaultPostURL;  ///< the URL is the user default's, so client entries do not change it
    std::optional<std::string> _realtimePostURL;
    bool _useDefaultRealtimePostURL;
};

}  // namespace quorvane
