#pragma once

#include "platform/Log.h"
#include "platform/Value.h"
#include "tests/support/HttpsServer.h"
#include "tools/storebag/SigningKey.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane {

/// A device with the release environment and bundle version 7.1, its storebag server and the server's key.
/// All tests of a process share root and server, because both are settled once in a process; every test
/// starts with a device in order, an empty server and a clock of its own, which stands still.
class StorebagFixture : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    static test::HttpsServer& server();
    static const tools::SigningKey& key();

    static void writeFile(const std::string& path, std::string_view text);
    static void removeFile(const std::string& path);
    static void installPublicKey(std::string_view der);
    static void installBundleVersion(const std::string& version);

    /// The server's answers from now on. Connections are not kept, so that the server can end at once.
    static void answer(std::string body, std::vector<std::pair<std::string, std::string>> headers = {},
                       int status = 200);
    /// Answers that no client takes to their end, because they are larger than a storebag may be.
    static void answerTooMuch();

    /// The envelope of the bag, signed with the server's key.
    static std::string signedBag(const Dictionary& bag);
    /// An envelope as given, signed or not.
    static std::string envelope(const Dictionary& entries);
    static Dictionary entriesOf(const std::string& envelope);

    static void advanceClock(std::chrono::microseconds by);

    /// The lines written so far, each after its level as in "<6>", in order: those at info and above, and
    /// all.
    static std::vector<std::string> lines();
    static std::vector<std::string> allLines();
    static void forgetLines();

  private:
    struct Device;
    static Device& device();
};

}  // namespace quorvane
