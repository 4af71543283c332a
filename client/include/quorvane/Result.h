#pragma once

#include <cassert>
#include <string>
#include <utility>
#include <variant>

namespace quorvane {

enum class ErrorCode {
    /// The daemon cannot be reached, or the connection has ended. Nothing more goes over it; connect anew.
    Disconnected,
    /// The daemon's answer did not come in time. What was asked for may still happen.
    TimedOut,
    /// The argument cannot be sent: a value nested deeper than 21 dictionaries or 30 arrays, a text that is
    /// not UTF-8 or holds a NUL, a path that is not of a regular file.
    InvalidArgument,
    /// The daemon answered with a D-Bus error.
    Refused,
    /// The call would wait for itself: a waiting call from an executor that runs what it gets at once.
    WouldDeadlock,
    /// The system refused: no file, no memory, no thread.
    System,
    /// Nothing was done, since it would have to wait for the daemon to keep up.
    WouldBlock,
};

struct Error {
    ErrorCode code = ErrorCode::System;
    std::string message;  ///< For people, in English, one line.
};

/// What a call came to: a value or an error. Must be looked at; who does not mind an error says so with
/// static_cast<void>().
///
///     Result<Client> client = Client::connect();
///     if (!client) return report(client.error().message);
///     use(*client);
template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : _held(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : _held(std::in_place_index<1>, std::move(error)) {}

    explicit operator bool() const { return _held.index() == 0; }

    /// The value; only when there is one.
    const T& operator*() const& { return *held(); }
    T& operator*() & { return *held(); }
    T&& operator*() && { return std::move(*held()); }
    const T* operator->() const { return held(); }
    T* operator->() { return held(); }

    /// The error; only when there is one.
    const Error& error() const {
        const Error* error = std::get_if<1>(&_held);
        assert(error != nullptr);
        return *error;
    }

  private:
    const T* held() const {
        const T* value = std::get_if<0>(&_held);
        assert(value != nullptr);
        return value;
    }
    T* held() { return const_cast<T*>(std::as_const(*this).held()); }

    std::variant<T, Error> _held;
};

/// Success or an error.
using Status = Result<std::monostate>;

}  // namespace quorvane
