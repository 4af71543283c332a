#pragma once

#include "platform/crypto/Crypto.h"
#include "platform/value/Value.h"

#include <memory>
#include <string>

namespace quorvane::tools {

/// A signed storebag taken apart as a device does it.
struct Envelope {
    Data signature;
    Data bagBytes;  ///< What is signed.
};

/// All throw a Failure that names the file, or gives the name.

Envelope openEnvelope(const Data& bytes, std::string_view name);
Dictionary bagOf(const Envelope& envelope, std::string_view name);
std::unique_ptr<platform::RsaPublicKey> readPublicKey(const std::string& path);

bool isSignedWith(const Envelope& envelope, const platform::RsaPublicKey& key);

}  // namespace quorvane::tools
