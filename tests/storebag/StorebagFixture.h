#pragma once

#include "platform/formats/PropertyList.h"
#include "tests/support/HttpsServer.h"
#include "tests/support/RootFixture.h"
#include "tools/storebag/SignStorebag.h"
#include "util/Environment.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quorvane {

/// A device with the release environment and bundle version 7.1, its storebag server, which answers with
/// nothing at first, the server's key, and a clock that stands still.
class StorebagFixture : public RootFixture {
  protected:
    StorebagFixture() {
        write("etc/quorvane/defaults/com.velmora.quorvane.toml",
              "quorvane_storebag_url = \"" + _server.url("/bags") + "\"\n");
        write(kPublicKey, text(_key->publicDER()));
        installBundleVersion("7.1");
        replaceEnvironmentType(EnvironmentType::Release);
        setClock(1'760'000'000'250'000);
    }

    static std::string text(const Data& bytes) { return {bytes.begin(), bytes.end()}; }

    void installBundleVersion(const std::string& version) const {
        write(kInfo, text(*platform::binaryPropertyList(Dictionary{{"CFBundleVersion", version}})));
    }

    /// The server's answers from now on.
    void answer(std::string body, std::vector<std::pair<std::string, std::string>> headers = {},
                int status = 200) {
        _server.answerWith({status, std::move(headers), std::move(body)});
    }
    /// Answers that no client takes to their end, because they are larger than a storebag may be.
    void answerTooMuch() {
        answer(std::string((16u << 20) + 1, ' '), {{"Cache-Control", "max-age=5"}, {"Last-Modified", "now"}});
    }

    /// The envelope of the bag, signed with the server's key.
    std::string signedBag(const Dictionary& bag) const { return text(*tools::signStorebag(bag, *_key)); }

    /// The lines at info and above.
    static std::vector<std::string> lines() {
        std::vector<std::string> kept = logLines();
        std::erase_if(kept, [](const std::string& line) { return line.starts_with("<7>"); });
        return kept;
    }

    const std::string kPublicKey = "usr/share/quorvane/framework/publicKey.der";
    const std::string kInfo = "usr/share/quorvane/framework/Info.plist";
    test::HttpsServer _server{_root};
    const std::unique_ptr<tools::SigningKey> _key = tools::SigningKey::generate();
};

}  // namespace quorvane
