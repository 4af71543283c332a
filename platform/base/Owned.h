#pragma once

#include <memory>

namespace quorvane::platform {

/// Calls the C library's function that ends or releases an object.
template <auto release>
struct Releaser {
    template <typename Object>
    void operator()(Object* object) const {
        release(object);
    }
};

/// An object of a C library, ended by the function: Owned<BIO, BIO_free>.
template <typename Object, auto release>
using Owned = std::unique_ptr<Object, Releaser<release>>;

}  // namespace quorvane::platform
