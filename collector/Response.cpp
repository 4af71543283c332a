#include "collector/Response.h"

#include <fmt/format.h>

namespace quorvane::collector {

Response refusal(int status, std::string_view reason) {
    return {.status = status, .body = fmt::format("{{\"error\":\"{}\"}}", reason)};
}

}  // namespace quorvane::collector
