#pragma once

#include <unistd.h>

#include <utility>

namespace quorvane::platform {

/// Owns one file descriptor; -1 means none.
class UniqueDescriptor {
  public:
    UniqueDescriptor() = default;
    explicit UniqueDescriptor(int descriptor) : _descriptor(descriptor) {}
    UniqueDescriptor(UniqueDescriptor&& other) noexcept : _descriptor(other.release()) {}
    UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueDescriptor() { reset(); }

    int get() const { return _descriptor; }
    explicit operator bool() const { return _descriptor >= 0; }
    int release() { return std::exchange(_descriptor, -1); }
    void reset(int descriptor = -1) {
        if (_descriptor >= 0) ::close(_descriptor);
        _descriptor = descriptor;
    }

  private:
    int _descriptor = -1;
};

}  // namespace quorvane::platform
