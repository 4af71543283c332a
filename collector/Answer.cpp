#include "collector/Answer.h"

#include <fmt/format.h>

namespace quorvane::collector {

Answer refusal(int status, std::string_view reason) {
    return {.status = status, .body = fmt::format("{{\"error\":\"{}\"}}", reason)};
}

}  // namespace quorvane::collector
