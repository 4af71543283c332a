#pragma once

#include "platform/base/Result.h"
#include "platform/crypto/Crypto.h"
#include "platform/value/Value.h"
#include "storebag/StorebagStatus.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace quorvane {

/// Downloads the named storebag with a conditional request, verifies its signature with the framework's
/// public keys, of which one must fit, and returns the bag; blocks, up to 15 s. Nothing on any failure, which
/// is logged, and when the server reports the bag unchanged. For "confluxa" a built-in bag stands in when the
/// server cannot be reached. The base URL, a setting, is read once in the process. Thread-safe.
///   name          absent prints as "(null)" in the URL
///   maxAge        seconds, from the answer; left alone when none came
///   notModified   set to true when the server reports the bag unchanged, else left alone
///   lastModified  in: the cached bag's "Last-Modified", out: the answer's; may be null
///   attempt       out: all but its time; may be null
std::optional<Dictionary> fetchStorebagWithName(const std::optional<std::string>& name, std::int32_t& maxAge,
                                                bool& notModified, std::optional<std::string>* lastModified,
                                                FetchAttempt* attempt = nullptr);

/// The key that bytes of the framework's are, or what is wrong with them. Thread-safe.
platform::Result<std::unique_ptr<platform::RsaPublicKey>> storebagPublicKey(const std::optional<Data>& der);

}  // namespace quorvane
