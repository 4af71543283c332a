#pragma once

#include "platform/crypto/Crypto.h"
#include "platform/value/Value.h"
#include "storebag/SignedBag.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quorvane::tools {

/// All throw a Failure that names the file, or gives the name.

SignedBag openEnvelope(std::span<const std::uint8_t> bytes, std::string_view name);
Dictionary bagOf(const SignedBag& envelope, std::string_view name);
std::unique_ptr<platform::RsaPublicKey> readPublicKey(const std::string& path);

}  // namespace quorvane::tools
