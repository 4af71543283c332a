#include "backends/DashboardBackend.h"
#include "backends/UploadRequest.h"
#include "backends/UploadRoom.h"
#include "platform/base/Log.h"
#include "platform/formats/KeyedArchive.h"

#include <cstddef>
#include <string>
#include <utility>

namespace quorvane {

using platform::logDebug;
using platform::logError;
using platform::orNull;

namespace {

/// About what the archive takes in memory.
std::size_t estimatedBytes(const Array& logData) {
    std::size_t bytes = 0;
    for (const Value& value : logData) {
        bytes += sizeof(Value);
        if (const std::string* text = value.string()) bytes += text->size();
        if (const Data* data = value.data()) bytes += data->size();
        if (const Array* array = value.array()) bytes += estimatedBytes(*array);
        if (const Dictionary* dictionary = value.dictionary()) bytes += platform::heldBytes(*dictionary);
    }
    return bytes;
}

}  // namespace

bool DashboardBackend::uploadLogData(const Array& logData) {
    if (!_postURL) {
        logError("DashboardBackend(uploadLogData): Post URL for log data array is nil");
        return false;
    }
    auto room = uploadRoom(*_postURL, estimatedBytes(logData));
    if (!room) {
        logError("DashboardBackend(uploadLogData): No room for log data array");
        return false;
    }
    std::optional<Data> archive = platform::keyedArchive(logData);
    if (!archive) {
        logError("DashboardBackend(uploadLogData): Failed to serialize log data array for upload");
        return false;
    }
    room->shrinkTo(archive->size());
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
