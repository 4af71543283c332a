#include "platform/base/Log.h"
#include "platform/value/Text.h"
#include "platform/value/Url.h"
#include "platform/value/ValueFormat.h"
#include "session/FileURL.h"
#include "session/QuorvanedSession.h"
#include "util/MessageLog.h"

#include <string_view>

namespace quorvane {

using platform::logDebug;
using platform::logError;

namespace {

/// Whether any backend takes the upload; every one is asked.
template <typename Upload>
bool anyBackend(const BackendDictionary* backends, const Upload& upload) {
    bool success = false;
    if (backends == nullptr) return success;
    for (const auto& [name, backend] : *backends) success |= upload(*backend);
    return success;
}

/// The URL as it is logged; of one that is too long for a file's, what tells whose it is.
std::string loggedURL(std::string_view url) {
    constexpr std::size_t kKept = 1024;
    const bool fits = url.size() <= kMaximumFileURLBytes;
    return platform::escapedControls(platform::percentEncodedBlanks(fits ? url : url.substr(0, kKept)), "") +
           (fits ? "" : "...");
}

}  // namespace

void QuorvanedSession::uploadFileAtPath(const std::string& fileURL, const std::string& extensionToken,
                                        const std::function<void(bool)>& completionHandler) {
    logDebug("uploadFileAtPath: Uploading file for session {}", sessionID());
    uploadFileWithURL(fileURL, extensionToken, completionHandler);
}

void QuorvanedSession::uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                                         const std::function<void(bool)>& completionHandler) {
    const std::optional<std::string> path = pathOfFileURL(fileURL);
    const bool success = path && anyBackend(_backends.own().get(), [&](QuorvaneBackend& backend) {
                             return backend.uploadFileAtPath(*path, extensionToken.c_str());
                         });
    (success ? _ledger->uploads : _ledger->failedUploads).add(1);
    if (success)
        logDebug("uploadFileWithURL: File upload successful for {}", platform::orNull(path));
    else
        logError("uploadFileWithURL: File upload failed for {}", platform::orNull(path));
    writeToLogFile("[uploadFileWithURL] Upload {} for file {}", success ? "succeeded" : "failed",
                   loggedURL(fileURL));
    if (completionHandler) completionHandler(success);
}

void QuorvanedSession::uploadLogData(
    const Array& logData, const std::function<void(bool, const Answer& error)>& completionHandler) {
    logDebug("uploadLogData: Uploading log data array: {}", logData);
    const bool success = anyBackend(_backends.own().get(),
                                    [&](QuorvaneBackend& backend) { return backend.uploadLogData(logData); });
    (success ? _ledger->uploads : _ledger->failedUploads).add(1);
    if (success)
        logDebug("uploadLogData: Log data array upload successful");
    else
        logError("uploadLogData: Log data array upload failed");
    if (completionHandler) completionHandler(success, std::nullopt);
}

}  // namespace quorvane
