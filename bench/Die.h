#pragma once

#include <quorvane/Result.h>

#include <string>
#include <utility>

namespace quorvane::bench {

/// Ends the program: a measurement with errors in it is none.
[[noreturn]] void die(const char* what, const std::string& message);

/// The value; ends the program when there is an error.
template <typename T>
T orDie(Result<T> result, const char* what) {
    if (!result) die(what, result.error().message);
    return *std::move(result);
}

}  // namespace quorvane::bench
