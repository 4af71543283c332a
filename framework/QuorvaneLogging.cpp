#include "framework/QuorvaneLogging.h"

#include "platform/Log.h"

namespace quorvane {

void startLogging(const char* ident, std::string_view facility) {
    platform::openLog(ident, facility);
}

}  // namespace quorvane
