#pragma once

#include "tests/client/BusPeer.h"
#include "tests/support/Within.h"

#include <quorvane/Client.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>

namespace quorvane::test {

/// How long a test waits for something that should happen soon; sanitizers on a busy machine are slow.
constexpr std::chrono::seconds kSoon{20};

/// Waits until the condition holds; false when it does not in time.
inline bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = kSoon) {
    return within(limit, condition);
}

/// A client of the peer; the test fails when there is none.
inline Client connectTo(const BusPeer& peer, ConnectOptions options = {}) {
    options.socketPath = peer.path();
    Result<Client> client = Client::connect(std::move(options));
    if (!client) {
        ADD_FAILURE() << client.error().message;
        std::abort();
    }
    return *std::move(client);
}

/// Answers as the daemon does that has nothing to tell.
inline int answerNil(sd_bus_message* message) {
    if (std::strcmp(::sd_bus_message_get_member(message), "SetSessionInfo") == 0)
        return ::sd_bus_reply_method_return(message, nullptr);
    return ::sd_bus_reply_method_return(message, "as", 0);
}

}  // namespace quorvane::test
