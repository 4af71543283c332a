#pragma once

#include "backends/HTTPSPostBackend.h"
#include "platform/Json.h"
#include "platform/Log.h"
#include "platform/RandomDraw.h"
#include "util/Environment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quorvane {

/// A device of its own in a temporary folder: consent given, country US, release environment; log lines are
/// kept.
class BackendFixture : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvane-backends-XXXXXX").string();
        _root = ::mkdtemp(pattern.data());
        ::setenv("QUORVANE_ROOT", _root.c_str(), 1);
        ::setenv("LC_ALL", "en_US.UTF-8", 1);
        std::filesystem::create_directories(_root / "var/lib/quorvane");
        write("etc/quorvane/consent.toml", "diagnostics_submission = true\n");
        replaceEnvironmentType(EnvironmentType::Release);
        lines().clear();
        platform::setLogSink([](platform::LogLevel level, std::string_view line) {
            const std::scoped_lock lock(linesGuard());
            lines().push_back(fmt::format("<{}>{}", static_cast<int>(level), line));
        });
    }

    void TearDown() override {
        platform::setLogSink(nullptr);
        platform::replaceRandomDraw(nullptr);
        std::filesystem::remove_all(_root);
    }

    void write(const std::string& path, const std::string& text) const {
        std::filesystem::create_directories((_root / path).parent_path());
        std::ofstream(_root / path) << text;
    }

    /// How many lines written so far hold the text; each starts with its level, as in "<4>".
    static std::size_t logged(const std::string& text) {
        const std::scoped_lock lock(linesGuard());
        return static_cast<std::size_t>(std::count_if(lines().begin(), lines().end(), [&](const auto& line) {
            return line.find(text) != std::string::npos;
        }));
    }

    static std::shared_ptr<HTTPSPostBackend> backendWithClients(Array clients) {
        auto profile = std::make_shared<Dictionary>();
        profile->set("clients", std::move(clients));
        profile->set("display_url", "https://display.invalid/");
        return HTTPSPostBackend::initWithName("httppost", std::move(profile), "Fernlight");
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

    static std::shared_ptr<const Dictionary> userInfo(const char* client = "Mail",
                                                      const char* service = "Sync") {
        return std::make_shared<const Dictionary>(
            Dictionary{{"ClientName", client}, {"ServiceName", service}});
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

    std::filesystem::path _root;

  private:
    static std::vector<std::string>& lines() {
        static std::vector<std::string> kept;
        return kept;
    }
    static std::mutex& linesGuard() {
        static std::mutex guard;
        return guard;
    }
};

}  // namespace quorvane
