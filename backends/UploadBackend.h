#pragma once

#include "backends/QuorvaneBackend.h"
#include "platform/value/Value.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quorvane {

/// Uploads files that clients lend, each as one gzip-compressed POST.
class UploadBackend final : public QuorvaneBackend {
  public:
    /// Reads "post_url" and "display_url" from the profile. Null, and an error line, without the former.
    static std::shared_ptr<UploadBackend> initWithName(const std::string& name,
                                                       const std::shared_ptr<const Dictionary>& profile,
                                                       const OptionalString& productFamily);

    /// Whether the profile has what is required; else null is made, with the same error line.
    static bool accepts(const Dictionary* profile);

    /// Sends the file that the token was issued for, when the path names it, and waits for the answer. True
    /// once the server or the network has answered, whatever the answer; a reply with "success" in it has the
    /// client remove the file. False when nothing was sent: with an error line for what is no regular file,
    /// an empty one, and a malformed URL.
    ///
    /// The compressed form is held in memory as a whole, so files larger than 4 GiB are refused, and uploads
    /// wait until there is room for them.
    bool uploadFileAtPath(const std::string& path, const char* extensionToken) override;

    const OptionalString& uploadURL() const { return _uploadURL; }
    void setUploadURL(OptionalString uploadURL) { _uploadURL = std::move(uploadURL); }

  private:
    UploadBackend(const std::string& name, const std::shared_ptr<const Dictionary>& profile,
                  const OptionalString& productFamily);
    std::string requestURL(std::string_view path) const;
    /// Whether the server says that it has the file.
    bool post(std::string url, Data compressed) const;

    OptionalString _uploadURL;
};

}  // namespace quorvane
