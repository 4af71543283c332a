#pragma once

#include "backends/HTTPSPostBackend.h"
#include "platform/crypto/RandomDraw.h"
#include "platform/formats/Json.h"
#include "tests/support/HttpsServer.h"
#include "tests/support/RootFixture.h"
#include "util/Environment.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

namespace quorvane {

/// A device whose user consents, country US, in the release environment.
class BackendFixture : public RootFixture {
  protected:
    BackendFixture() {
        ::setenv("LC_ALL", "en_US.UTF-8", 1);
        std::filesystem::create_directories(_root / "var/lib/quorvane");
        write("etc/quorvane/consent.toml", "diagnostics_submission = true\n");
        replaceEnvironmentType(EnvironmentType::Release);
    }

    ~BackendFixture() override { platform::replaceRandomDraw(nullptr); }

    static std::shared_ptr<const Dictionary> shared(Dictionary dictionary) {
        return std::make_shared<const Dictionary>(std::move(dictionary));
    }

    static std::shared_ptr<HTTPSPostBackend> backendWithClients(Array clients) {
        return HTTPSPostBackend::initWithName(
            "httppost",
            shared({{"clients", std::move(clients)}, {"display_url", "https://display.invalid/"}}),
            "Fernlight");
    }

    /// A backend with one client entry that needs no user info, in the state that follows from it.
    static std::shared_ptr<HTTPSPostBackend> enabledBackend(const Dictionary& entry = {}) {
        auto backend = backendWithClients({Value(entry)});
        backend->updateState();
        return backend;
    }

    /// An entry that lets any client of a US device report.
    static Dictionary permissiveEntry() {
        return {{"locale_whitelist", Array{"US", "CA"}},
                {"filters", Array{Value(Dictionary{{"key", "secret"}, {"action", "remove"}})}},
                {"sampling_threshold", 1.0}};
    }

    static Dictionary entryWith(std::string_view key, Value value) {
        Dictionary entry = permissiveEntry();
        entry.set(key, std::move(value));
        return entry;
    }

    static std::shared_ptr<const Dictionary> userInfo(const char* client = "Mail",
                                                      const char* service = "Sync") {
        return shared({{"ClientName", client}, {"ServiceName", service}});
    }

    /// A backend that requires user info and has it.
    static std::shared_ptr<HTTPSPostBackend> personalBackend(
        const Dictionary& entry, std::shared_ptr<const Dictionary> user = userInfo(), double draw = 0) {
        auto backend = backendWithClients({Value(entry)});
        backend->setRequireUserInfo(true);
        backend->setUserInfoDict(std::move(user));
        backend->setSamplingFactor(draw);
        backend->updateState();
        return backend;
    }

    static QuorvaneBackend::Answer send(QuorvaneBackend& backend, const Dictionary& payload,
                                        std::uint16_t method = 5, std::uint16_t respCode = 0,
                                        unsigned flag = 0) {
        return backend.sendMessage(&payload, {130, 500'000}, method, respCode, MessageFlag{flag});
    }

    /// The "events" of a message in JSON; empty for none.
    static Array eventsIn(const std::optional<std::string>& json) {
        const auto message = platform::parseJson(json.value_or("{}"));
        const Array* events =
            message && message->dictionary() ? message->dictionary()->array("events") : nullptr;
        return events != nullptr ? *events : Array();
    }

    static Dictionary onlyEventIn(const std::optional<std::string>& json) {
        const Array events = eventsIn(json);
        EXPECT_EQ(events.size(), 1u);
        return events.size() == 1 ? *events[0].dictionary() : Dictionary();
    }
};

/// With a server that backends can post to.
class PostingFixture : public BackendFixture {
  protected:
    const std::unique_ptr<test::HttpsServer> _server = std::make_unique<test::HttpsServer>(_root);
};

}  // namespace quorvane
