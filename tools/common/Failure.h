#pragma once

#include <stdexcept>
#include <string>

namespace quorvane::tools {

inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

/// Why a program cannot do what it was asked for, as one line for the person who asked, and the status that
/// the program ends with. Caught in main() alone.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& text, int status = kFailed)
        : std::runtime_error(text), _status(status) {}

    int status() const { return _status; }

  private:
    int _status;
};

}  // namespace quorvane::tools
