#include "framework/QuorvaneLogging.h"

#include "platform/base/Log.h"

namespace quorvane {

void startLogging(const char* ident, std::string_view facility) {
    platform::openLog(ident, facility);
}

}  // namespace quorvane
