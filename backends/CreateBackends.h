#pragma once

#include "backends/QuorvaneBackend.h"
#include "platform/value/Value.h"

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace quorvane {

/// Backends by name.
using BackendDictionary = std::map<std::string, std::shared_ptr<QuorvaneBackend>, std::less<>>;

/// Makes one backend for every entry of the storebag section that names one and fills in the session's facts.
/// Nothing, and an error line, when the storebag or the session info is null. The device identifier's bytes
/// are borrowed and must outlive the backends.
std::optional<BackendDictionary> createBackends(const std::shared_ptr<const Dictionary>& storebag,
                                                const Dictionary* sessionInfo,
                                                const std::shared_ptr<const Dictionary>& userInfo,
                                                const char* deviceIdentifier);

}  // namespace quorvane
