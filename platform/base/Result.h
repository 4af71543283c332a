#pragma once

#include <string>
#include <utility>

#include <tl/expected.hpp>

namespace quorvane::platform {

/// The one word for failure:
///
///     Result<Dictionary> settings = readTomlFile(path);
///     if (!settings) return failure("no settings: " + settings.error().message);
///     use(*settings);
///
/// - What may be absent is a std::optional; nothing has failed.
/// - What failed, with a reason that the caller handles or hands on, is a Result.
/// - A failure that has a log line of its own is logged where it is found; its caller gets null or nullopt.
/// - A function that a C library calls back answers -errno, as that library wants it.
/// - Exceptions leave a function only while a program starts; a library's end where the library is called.
struct Error {
    std::string message;  ///< For people: no line break, no full stop at its end.
};

/// The value, or why there is none.
template <typename T>
class [[nodiscard]] Result : public tl::expected<T, Error> {
  public:
    using tl::expected<T, Error>::expected;
};

/// What a function that returns a Result answers when it failed.
inline tl::unexpected<Error> failure(std::string message) {
    return tl::unexpected<Error>(Error{std::move(message)});
}

}  // namespace quorvane::platform
