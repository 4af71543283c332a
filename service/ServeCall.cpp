#include "service/ServeCall.h"

#include "platform/base/Log.h"

namespace quorvane {

int answerFailedCall(int result, sd_bus_error* error) {
    switch (result) {
        case -EMSGSIZE:
            return ::sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                      "Session info, user info and framework names may have 64 KiB each");
        case -ENOBUFS:
            return ::sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                      "Too much is held for the client's user already");
        case -EUSERS:
            return ::sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                      "Too many of the client's user, or of all users, watch already");
        default:
            return ::sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "The arguments cannot be read (%s)",
                                       std::strerror(-result));
    }
}

void logThrown(const char* member, const std::exception& thrown) {
    platform::logError("serve: {} failed: {}", member, thrown.what());
}

}  // namespace quorvane
