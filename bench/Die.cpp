#include "bench/Die.h"

#include <cstdlib>

#include <fmt/format.h>

namespace quorvane::bench {

void die(const char* what, const std::string& message) {
    fmt::print(stderr, "{}: {}\n", what, message);
    std::exit(EXIT_FAILURE);
}

}  // namespace quorvane::bench
