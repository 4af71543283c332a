#pragma once

#include "platform/http/HttpSession.h"
#include "platform/value/Value.h"

#include <optional>
#include <string>

namespace quorvane {

/// A POST of raw bytes to an upload server, without a time limit as long as something moves.
platform::HttpRequest uploadRequest(std::string url, Data body);

/// The reply as text; nothing when it is not UTF-8.
std::optional<std::string> replyText(const platform::HttpResponse& response);

}  // namespace quorvane
