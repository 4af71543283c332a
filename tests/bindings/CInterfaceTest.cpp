#include "platform/base/Owned.h"
#include "tests/support/DaemonFixture.h"

#include <quorvane/quorvane.h>

#include <dlfcn.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <future>

namespace quorvane::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

template <typename T, auto release>
using Owned = platform::Owned<T, release>;
using CDictionary = Owned<QuorvaneDictionary, quorvane_dictionary_free>;
using CArray = Owned<QuorvaneArray, quorvane_array_free>;
using CSessionInfo = Owned<QuorvaneSessionInfo, quorvane_session_info_free>;
using CUserInfo = Owned<QuorvaneUserInfo, quorvane_user_info_free>;
using COptions = Owned<QuorvaneReporterOptions, quorvane_reporter_options_free>;
using CReporter = Owned<QuorvaneReporter, quorvane_reporter_free>;
using CClientOptions = Owned<QuorvaneClientOptions, quorvane_client_options_free>;
using CClient = Owned<QuorvaneClient, quorvane_client_free>;

/// A text that was handed out, given back.
std::string taken(char* text) {
    std::string copy = text != nullptr ? text : "(null)";
    quorvane_text_free(text);
    return copy;
}

std::string joined(char** names) {
    if (names == nullptr) return "(null)";
    std::string all;
    for (char** name = names; *name != nullptr; ++name) all += std::string(*name) + ";";
    quorvane_names_free(names);
    return all;
}

CSessionInfo session(std::uint32_t clientType = 5) {
    CSessionInfo info(quorvane_session_info_new());
    quorvane_session_info_set_session_id(info.get(), 1);
    quorvane_session_info_set_client_type(info.get(), clientType);
    return info;
}

CDictionary payload(double took) {
    CDictionary dictionary(quorvane_dictionary_new());
    EXPECT_EQ(quorvane_dictionary_set_real(dictionary.get(), "took", took), QUORVANE_OK);
    return dictionary;
}

class CInterface : public testing::Test {
  protected:
    CClient connected() {
        const CClientOptions options(quorvane_client_options_new());
        EXPECT_EQ(quorvane_client_options_set_socket_path(options.get(), device.socketPath().c_str()),
                  QUORVANE_OK);
        QuorvaneClient* client = nullptr;
        char* message = nullptr;
        EXPECT_EQ(quorvane_client_connect(options.get(), &client, &message), QUORVANE_OK) << taken(message);
        return CClient(client);
    }

    DaemonFixture device;
};

TEST(CValues, KeepTheirTypes) {
    const CArray array(quorvane_array_new());
    const CDictionary inner(quorvane_dictionary_new()), all(quorvane_dictionary_new());
    const auto bytes = "\x01\0\x02";
    std::vector<int> codes{quorvane_array_add_text(array.get(), "text"),
                           quorvane_array_add_boolean(array.get(), true),
                           quorvane_array_add_signed(array.get(), -1),
                           quorvane_array_add_unsigned(array.get(), UINT64_MAX),
                           quorvane_array_add_real(array.get(), 0.5),
                           quorvane_array_add_date(array.get(), 1'000'000),
                           quorvane_array_add_data(array.get(), bytes, 3),
                           quorvane_array_add_dictionary(array.get(), inner.get()),
                           quorvane_array_add_array(array.get(), array.get()),
                           quorvane_dictionary_set_array(inner.get(), "array", array.get()),
                           quorvane_dictionary_set_text(all.get(), "a", "former"),
                           quorvane_dictionary_set_text(all.get(), "a", "text"),
                           quorvane_dictionary_set_boolean(all.get(), "b", false),
                           quorvane_dictionary_set_signed(all.get(), "c", INT64_MIN),
                           quorvane_dictionary_set_unsigned(all.get(), "d", UINT64_MAX),
                           quorvane_dictionary_set_real(all.get(), "e", 0.25),
                           quorvane_dictionary_set_date(all.get(), "f", -1'000'000),
                           quorvane_dictionary_set_data(all.get(), "g", nullptr, 0),
                           quorvane_dictionary_set_dictionary(all.get(), "h", inner.get()),
                           quorvane_dictionary_set_dictionary(all.get(), "i", all.get())};
    EXPECT_THAT(codes, testing::Each(QUORVANE_OK));
    EXPECT_EQ(quorvane_array_count(array.get()), 9u);
    EXPECT_EQ(quorvane_dictionary_remove(all.get(), "i"), QUORVANE_OK);
    char* text = nullptr;
    EXPECT_EQ(quorvane_dictionary_describe(all.get(), &text), QUORVANE_OK);
    const std::string flat =
        "text, 1, -1, 18446744073709551615, 0.5, 1970-01-01 00:00:01 +0000, <010002>, {}";
    EXPECT_EQ(taken(text),
              "{a = text; b = 0; c = -9223372036854775808; d = 18446744073709551615; e = 0.25; "
              "f = 1969-12-31 23:59:59 +0000; g = <>; h = {array = (" +
                  flat + ", (" + flat + "));};}");
}

TEST(CValues, NullIsRefusedAndChangesNothing) {
    const CDictionary dictionary(quorvane_dictionary_new());
    EXPECT_EQ(quorvane_dictionary_set_text(dictionary.get(), "key", nullptr), QUORVANE_INVALID_ARGUMENT);
    EXPECT_EQ(quorvane_dictionary_set_real(dictionary.get(), nullptr, 1), QUORVANE_INVALID_ARGUMENT);
    EXPECT_EQ(quorvane_dictionary_set_real(nullptr, "key", 1), QUORVANE_INVALID_ARGUMENT);
    EXPECT_EQ(quorvane_dictionary_set_data(dictionary.get(), "key", nullptr, 1), QUORVANE_INVALID_ARGUMENT);
    EXPECT_EQ(quorvane_dictionary_set_data(dictionary.get(), "key", "", SIZE_MAX), QUORVANE_NO_MEMORY);
    EXPECT_EQ(quorvane_dictionary_count(dictionary.get()), 0u);
    char* message = nullptr;
    EXPECT_EQ(quorvane_reporter_flush(nullptr, 0, &message), QUORVANE_INVALID_ARGUMENT);
    EXPECT_EQ(taken(message), "an argument is NULL");
    EXPECT_FALSE(quorvane_reporter_report(nullptr, 1, 2, nullptr, 0));
}

TEST(CSymbols, BearTheirVersion) {
    EXPECT_NE(::dlvsym(RTLD_DEFAULT, "quorvane_reporter_report", "QUORVANE_C_1"), nullptr);
    EXPECT_EQ(::dlvsym(RTLD_DEFAULT, "quorvane_reporter_report", "QUORVANE_C_2"), nullptr);
    EXPECT_STREQ(quorvane_version(), "7.0.0");
}

struct Told {
    std::atomic<int> state = -1;
    std::promise<std::string> firstBackend;
};

TEST_F(CInterface, AReporterReportsAndCounts) {
    device.serveStorebag(device.httpPostSection());
    device.start();
    Told told;
    const COptions options(quorvane_reporter_options_new());
    quorvane_reporter_options_set_session_info(options.get(), session().get());
    quorvane_reporter_options_set_socket_path(options.get(), device.socketPath().c_str());
    quorvane_reporter_options_set_queue(options.get(), 100, 10'000);
    quorvane_reporter_options_set_state_callback(
        options.get(),
        [](void* context, int state, const char* const* backends, int code, const char* message) {
            auto& told = *static_cast<Told*>(context);
            told.state = state;
            if (state == QUORVANE_REPORTER_CONNECTED) told.firstBackend.set_value(backends[0]);
            if (state == QUORVANE_REPORTER_DISCONNECTED) {
                EXPECT_EQ(code, QUORVANE_DISCONNECTED);
                EXPECT_THAT(message, StartsWith("the connection is lost"));
            }
        },
        &told);
    QuorvaneReporter* started = nullptr;
    ASSERT_EQ(quorvane_reporter_start(options.get(), &started, nullptr), QUORVANE_OK);
    const CReporter reporter(started);
    EXPECT_EQ(told.firstBackend.get_future().get(), "httppost");

    EXPECT_TRUE(quorvane_reporter_report(reporter.get(), 12, 3, payload(0.25).get(), QUORVANE_FLAG_SEND_NOW));
    EXPECT_TRUE(quorvane_reporter_report(reporter.get(), 12, 3, nullptr, 0));
    const CDictionary wrong(quorvane_dictionary_new());
    quorvane_dictionary_set_text(wrong.get(), "key", "\xff");
    EXPECT_FALSE(quorvane_reporter_report(reporter.get(), 12, 3, wrong.get(), 0));
    quorvane_dictionary_set_data(wrong.get(), "key", std::string(20'000, 'x').data(), 20'000);
    EXPECT_FALSE(quorvane_reporter_report(reporter.get(), 12, 3, wrong.get(), 0));
    char* message = nullptr;
    EXPECT_EQ(quorvane_reporter_flush(reporter.get(), QUORVANE_DEFAULT_TIMEOUT, &message), QUORVANE_OK);
    EXPECT_EQ(message, nullptr);
    ASSERT_TRUE(device.waitForEvents(12, 2));

    device.daemon().terminate();
    EXPECT_TRUE(eventually([&] { return told.state == QUORVANE_REPORTER_DISCONNECTED; }));
    EXPECT_EQ(quorvane_reporter_flush(reporter.get(), 10, &message), QUORVANE_TIMED_OUT);
    EXPECT_EQ(taken(message), "the daemon did not take all events in time");
    EXPECT_TRUE(quorvane_reporter_report(reporter.get(), 12, 3, nullptr, 0));
    EXPECT_EQ(quorvane_reporter_close(reporter.get(), 0), QUORVANE_OK);

    struct {
        QuorvaneReporterStatistics known;
        std::uint64_t later = 7;
    } counted;
    EXPECT_EQ(quorvane_reporter_statistics(reporter.get(), &counted.known, sizeof counted), QUORVANE_OK);
    EXPECT_EQ(counted.known.reported, 5u);
    EXPECT_EQ(counted.known.taken, 2u);
    EXPECT_EQ(counted.known.dropped_unsendable, 1u);
    EXPECT_EQ(counted.known.dropped_too_large, 1u);
    EXPECT_EQ(counted.known.dropped_at_end, 1u);
    EXPECT_EQ(counted.known.sessions, 1u);
    EXPECT_EQ(counted.later, 0u);
    QuorvaneReporterStatistics shorter{};
    shorter.taken = 7;
    EXPECT_EQ(quorvane_reporter_statistics(reporter.get(), &shorter, sizeof shorter.reported), QUORVANE_OK);
    EXPECT_EQ(shorter.taken, 7u) << "past the size of an older structure";
}

TEST(CReporterStart, SaysWhatIsWrongWithTheOptions) {
    const COptions options(quorvane_reporter_options_new());
    quorvane_reporter_options_set_queue(options.get(), 0, 1);
    QuorvaneReporter* reporter = nullptr;
    char* message = nullptr;
    EXPECT_EQ(quorvane_reporter_start(options.get(), &reporter, &message), QUORVANE_INVALID_ARGUMENT);
    EXPECT_EQ(taken(message), "the queue has no room");
    EXPECT_EQ(reporter, nullptr);
}

TEST_F(CInterface, AClientAsksAndSends) {
    device.serveStorebag(device.httpPostSection());
    device.start();
    const CClient client = connected();
    const CUserInfo user(quorvane_user_info_new());
    quorvane_user_info_set_client_name(user.get(), "client");
    ASSERT_EQ(quorvane_client_set_session_info(client.get(), session().get(), user.get(),
                                               QUORVANE_DEFAULT_TIMEOUT, nullptr),
              QUORVANE_OK);
    char** names = nullptr;
    EXPECT_EQ(quorvane_client_start(client.get(), QUORVANE_NO_TIMEOUT, &names, nullptr), QUORVANE_OK);
    EXPECT_EQ(joined(names), "httppost;");
    EXPECT_EQ(quorvane_client_fetch_states(client.get(), user.get(), 30'000, &names, nullptr), QUORVANE_OK);
    EXPECT_EQ(joined(names), "httppost;");
    char* text = nullptr;
    EXPECT_EQ(quorvane_client_display_url(client.get(), 30'000, &text, nullptr), QUORVANE_OK);
    EXPECT_THAT(taken(text), StartsWith("https://display.example/show"));

    const CDictionary values = payload(0.25);
    EXPECT_EQ(quorvane_client_send(client.get(), 12, 3, values.get(), 0, 30'000, &text, nullptr),
              QUORVANE_OK);
    EXPECT_THAT(taken(text), HasSubstr("\"took\""));
    std::promise<std::string> answer;
    const auto take = [](void* context, int code, const char* answer, const char*) {
        EXPECT_EQ(code, QUORVANE_OK);
        static_cast<std::promise<std::string>*>(context)->set_value(answer);
    };
    EXPECT_EQ(
        quorvane_client_send_async(client.get(), 12, 3, values.get(), 0, 30'000, take, &answer, nullptr),
        QUORVANE_OK);
    EXPECT_THAT(answer.get_future().get(), HasSubstr("\"took\""));
    EXPECT_EQ(quorvane_client_send_and_forget(client.get(), 12, 3, values.get(), 0, nullptr), QUORVANE_OK);
    EXPECT_EQ(quorvane_client_try_send(client.get(), 12, 3, nullptr, 0, nullptr), QUORVANE_OK);
    EXPECT_EQ(quorvane_client_send_single(client.get(), session().get(), nullptr, 12, 3, values.get(), 30'000,
                                          &text, nullptr),
              QUORVANE_OK);
    EXPECT_EQ(taken(text), "finished");
    EXPECT_EQ(quorvane_client_flush(client.get(), 30'000, nullptr, nullptr), QUORVANE_OK);
    EXPECT_TRUE(device.waitForEvents(12, 5));

    const CDictionary wrong(quorvane_dictionary_new());
    quorvane_dictionary_set_text(wrong.get(), "key", "\xff");
    EXPECT_EQ(quorvane_client_try_send(client.get(), 12, 3, wrong.get(), 0, &text),
              QUORVANE_INVALID_ARGUMENT);
    EXPECT_THAT(taken(text), StartsWith("the values cannot be sent"));
    device.daemon().terminate();
    ASSERT_TRUE(eventually([&] {
        return quorvane_client_send_and_forget(client.get(), 1, 2, nullptr, 0, nullptr) != QUORVANE_OK;
    }));
    EXPECT_EQ(quorvane_client_flush(client.get(), 30'000, nullptr, &text), QUORVANE_DISCONNECTED);
    EXPECT_THAT(taken(text), StartsWith("the connection is lost"));
    QuorvaneClient* none = nullptr;
    const CClientOptions nowhere(quorvane_client_options_new());
    quorvane_client_options_set_socket_path(nowhere.get(), "/nowhere");
    EXPECT_EQ(quorvane_client_connect(nowhere.get(), &none, &text), QUORVANE_DISCONNECTED);
    EXPECT_THAT(taken(text), HasSubstr("No such file"));
}

TEST_F(CInterface, AClientUploads) {
    device.write("home/file.log", "contents");
    device.serveStorebag({{"uploadserver", Dictionary{{"post_url", device.server().url("/upload")}}}});
    device.answerPosts([](const ServerRequest&) { return ServerAnswer{200, {}, "success"}; });
    device.start();
    const CClient client = connected();
    quorvane_client_set_session_info(client.get(), session().get(), nullptr, QUORVANE_DEFAULT_TIMEOUT,
                                     nullptr);
    ASSERT_EQ(quorvane_client_start(client.get(), QUORVANE_DEFAULT_TIMEOUT, nullptr, nullptr), QUORVANE_OK);

    std::vector<int> steps;
    const auto note = [](void* steps, int step, std::uint64_t bytes) {
        EXPECT_EQ(bytes, 8u);
        static_cast<std::vector<int>*>(steps)->push_back(step);
    };
    bool uploaded = false;
    const std::string file = device.root() / "home/file.log";
    EXPECT_EQ(
        quorvane_client_upload_file(client.get(), file.c_str(), note, &steps, 30'000, &uploaded, nullptr),
        QUORVANE_OK);
    EXPECT_TRUE(uploaded);
    EXPECT_EQ(steps,
              (std::vector<int>{QUORVANE_UPLOAD_OPENED, QUORVANE_UPLOAD_LENT, QUORVANE_UPLOAD_FINISHED}));
    const CArray log(quorvane_array_new());
    quorvane_array_add_text(log.get(), "line");
    EXPECT_EQ(quorvane_client_upload_log_data(client.get(), log.get(), 30'000, &uploaded, nullptr),
              QUORVANE_OK);
    char* message = nullptr;
    EXPECT_EQ(quorvane_client_upload_file(client.get(), device.root().c_str(), nullptr, nullptr, 30'000,
                                          &uploaded, &message),
              QUORVANE_INVALID_ARGUMENT);
    EXPECT_THAT(taken(message), HasSubstr("is no regular file"));
    EXPECT_FALSE(uploaded);
}

}  // namespace
}  // namespace quorvane::test
