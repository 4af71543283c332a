#pragma once

#include "tools/common/Failure.h"
#include "tools/ctl/CtlOptions.h"

#include <quorvane/Client.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace quorvane::ctl {

inline constexpr int kNotReached = 3;

tools::Failure failureOf(const Error& error);

/// The value, or a Failure with the error's message.
template <typename T>
T orFail(Result<T> result) {
    if (!result) throw failureOf(result.error());
    return *std::move(result);
}

Timeout timeoutOf(const SessionOptions& options);
std::optional<UserInfo> userInfoOf(const SessionOptions& options);

Client connect(const SessionOptions& options, std::function<void(Error)> disconnected = {});

/// Configures and starts the session.
ReportingStates start(Client& client, const SessionOptions& options, AggregationBlock block = {});

tools::Failure noStorebag(const SessionOptions& options);

/// The same, for what is of no use without a storebag; throws a Failure when there is none.
std::vector<std::string> startWithStorebag(Client& client, const SessionOptions& options,
                                           AggregationBlock block = {});

}  // namespace quorvane::ctl
