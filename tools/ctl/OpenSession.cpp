#include "tools/ctl/OpenSession.h"

#include <chrono>

#include <fmt/format.h>

namespace quorvane::ctl {

tools::Failure failureOf(const Error& error) {
    const bool unreached = error.code == ErrorCode::Disconnected || error.code == ErrorCode::TimedOut;
    return tools::Failure(error.message, unreached ? kNotReached : tools::kFailed);
}

Timeout timeoutOf(const SessionOptions& options) {
    return options.timeoutSeconds == 0 ? kNoTimeout : Timeout(std::chrono::seconds(options.timeoutSeconds));
}

std::optional<UserInfo> userInfoOf(const SessionOptions& options) {
    if (!options.clientName && !options.serviceName) return std::nullopt;
    return UserInfo{.clientName = options.clientName, .serviceName = options.serviceName};
}

Client connect(const SessionOptions& options, std::function<void(Error)> disconnected) {
    return orFail(Client::connect({.socketPath = options.socket,
                                   .timeout = timeoutOf(options),
                                   .disconnected = std::move(disconnected)}));
}

ReportingStates start(Client& client, const SessionOptions& options, AggregationBlock block) {
    orFail(client.setSessionInfo(options.sessionInfo, userInfoOf(options), {}, std::move(block),
                                 timeoutOf(options)));
    return orFail(client.start(timeoutOf(options)));
}

tools::Failure noStorebag(const SessionOptions& options) {
    return tools::Failure(fmt::format("the daemon has no storebag for client type {}",
                                      options.sessionInfo.clientType.value_or(0)));
}

std::vector<std::string> startWithStorebag(Client& client, const SessionOptions& options,
                                           AggregationBlock block) {
    ReportingStates states = start(client, options, std::move(block));
    if (!states) throw noStorebag(options);
    return *std::move(states);
}

}  // namespace quorvane::ctl
