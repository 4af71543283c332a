#pragma once

#include "tests/support/RootFixture.h"
#include "tools/storebag/SigningKey.h"

#include <filesystem>

namespace quorvane::test {

/// Works in a folder of its own, with the private key in private.pem.
class SigningFixture : public RootFixture {
  protected:
    SigningFixture() {
        std::filesystem::current_path(_root);
        write("private.pem", key().privatePEM());
    }
    ~SigningFixture() override { std::filesystem::current_path("/"); }

    /// Making one takes a while, and one is as good as another.
    static const tools::SigningKey& key() {
        static const auto made = tools::SigningKey::generate();
        return *made;
    }
};

}  // namespace quorvane::test
