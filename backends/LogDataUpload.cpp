#include "backends/DashboardBackend.h"
#include "backends/UploadRequest.h"
#include "platform/base/Log.h"
#include "platform/formats/KeyedArchive.h"

#include <utility>

namespace quorvane {

using platform::logDebug;
using platform::logError;
using platform::orNull;

bool DashboardBackend::uploadLogData(const Array& logData) {
    if (!_postURL) {
        logError("DashboardBackend(uploadLogData): Post URL for log data array is nil");
        return false;
    }
    std::optional<Data> archive = platform::keyedArchive(logData);
    if (!archive) {
        logError("DashboardBackend(uploadLogData): Failed to serialize log data array for upload");
        return false;
    }
    const platform::HttpResult result =
        platform::performDataTask(uploadRequest(*_postURL, std::move(*archive)));
    if (result.error) {
        logError("DashboardBackend(uploadLogData): Error uploading log data array ({})", *result.error);
        return false;
    }
    // The status counts for nothing: whatever the server answers is where it put the data.
    const OptionalString location = replyText(result.response);
    logDebug("DashboardBackend(uploadLogData): Log data uploaded to {}", orNull(location));
    sendUploadLocation(location);
    return true;
}

/// Numbered like any event and, like the session's own, dropped.
void DashboardBackend::sendUploadLocation(const OptionalString& location) {
    Dictionary message;
    if (location) message.set("LogDataUploadLocation", *location);
    sendMessage(&message, platform::timeOfDay(), 0, 2, MessageFlag{0});
}

}  // namespace quorvane
