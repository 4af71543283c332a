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

/// Everything in the value, read through the C interface.
std::string read(const QuorvaneValue* value) {
    std::string all;
    std::size_t size = 0;
    switch (quorvane_value_kind(value)) {
        case QUORVANE_KIND_TEXT:
            return quorvane_value_text(value);
        case QUORVANE_KIND_BOOLEAN:
            return quorvane_value_boolean(value) ? "yes" : "no";
        case QUORVANE_KIND_SIGNED:
            return std::to_string(quorvane_value_signed(value));
        case QUORVANE_KIND_UNSIGNED:
            return std::to_string(quorvane_value_unsigned(value));
        case QUORVANE_KIND_REAL:
            return std::to_string(quorvane_value_real(value));
        case QUORVANE_KIND_DATE:
            return "@" + std::to_string(quorvane_value_date(value));
        case QUORVANE_KIND_DATA:
            all = "#" + std::string(static_cast<const char*>(quorvane_value_data(value, &size)));
            return all + std::to_string(size);
        default:
            for (std::size_t i = 0; i < quorvane_value_count(value); ++i) {
                const char* key = quorvane_value_key_at(value, i);
                all +=
                    (key != nullptr ? std::string(key) + "=" : "") + read(quorvane_value_at(value, i)) + ";";
            }
            return "[" + all + "]";
    }
}

TEST(CValues, AreReadAsTheyWereSet) {
    const CArray array(quorvane_array_new());
    const CDictionary inner(quorvane_dictionary_new()), outer(quorvane_dictionary_new());
    const std::vector<int> codes{quorvane_array_add_text(array.get(), "text"),
                                 quorvane_array_add_boolean(array.get(), true),
                                 quorvane_array_add_signed(array.get(), -1),
                                 quorvane_array_add_unsigned(array.get(), UINT64_MAX),
                                 quorvane_array_add_real(array.get(), 0.5),
                                 quorvane_array_add_date(array.get(), -7),
                                 quorvane_array_add_data(array.get(), "data", 5),
                                 quorvane_array_add_dictionary(array.get(), inner.get()),
                                 quorvane_array_add_array(array.get(), array.get()),
                                 quorvane_dictionary_set_array(inner.get(), "a", array.get()),
                                 quorvane_dictionary_set_text(inner.get(), "b", "former"),
                                 quorvane_dictionary_set_text(inner.get(), "b", "text"),
                                 quorvane_dictionary_set_boolean(inner.get(), "c", false),
                                 quorvane_dictionary_set_signed(inner.get(), "d", INT64_MIN),
                                 quorvane_dictionary_set_unsigned(inner.get(), "e", UINT64_MAX),
                                 quorvane_dictionary_set_real(inner.get(), "f", 0.25),
                                 quorvane_dictionary_set_date(inner.get(), "g", 1'000'000),
                                 quorvane_dictionary_set_data(inner.get(), "h", "data", 5),
                                 quorvane_dictionary_set_dictionary(inner.get(), "i", inner.get()),
                                 quorvane_dictionary_remove(inner.get(), "i"),
                                 quorvane_dictionary_set_dictionary(outer.get(), "inner", inner.get())};
    EXPECT_THAT(codes, testing::Each(QUORVANE_OK));
    EXPECT_EQ(quorvane_array_count(array.get()), 9u);
    const char* key = nullptr;
    const std::string flat = "text;yes;-1;18446744073709551615;0.500000;@-7;#data5;[];";
    EXPECT_EQ(read(quorvane_dictionary_at(outer.get(), 0, &key)),
              "[a=[" + flat + "[" + flat + "];];b=text;c=no;d=-9223372036854775808;" +
                  "e=18446744073709551615;f=0.250000;g=@1000000;h=#data5;]");
    EXPECT_STREQ(key, "inner");
    EXPECT_EQ(read(quorvane_dictionary_find(inner.get(), "b")), "text");
    const QuorvaneValue* none = quorvane_dictionary_at(outer.get(), 1, &key);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(quorvane_value_kind(none), -1);
    EXPECT_EQ(quorvane_value_text(quorvane_array_at(array.get(), 1)), nullptr);
    EXPECT_EQ(quorvane_value_at(quorvane_array_at(array.get(), 0), 0), nullptr);
    quorvane_dictionary_clear(outer.get());
    quorvane_dictionary_set_date(outer.get(), "date", 0);
    char* text = nullptr;
    EXPECT_EQ(quorvane_dictionary_describe(outer.get(), &text), QUORVANE_OK);
    EXPECT_EQ(taken(text), "{date = 1970-01-01 00:00:00 +0000;}");
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

TEST_F(CInterface, AnAggregatingClientGetsItsSessionsEvents) {
    device.serveStorebag(device.httpPostSection({{"client_name", "client"}}));
    device.start();
    const CClient client = connected();
    const CSessionInfo info = session();
    quorvane_session_info_set_require_user_info(info.get(), true);
    const CUserInfo user(quorvane_user_info_new());
    quorvane_user_info_set_client_name(user.get(), "client");
    quorvane_user_info_set_service_name(user.get(), "service");
    std::promise<std::string> received;
    const auto take = [](void* context, double timestamp, std::uint16_t category, std::uint16_t type,
                         const QuorvaneDictionary* payload) {
        if (category != 12) return;
        EXPECT_GT(timestamp, 1.7e9);
        EXPECT_EQ(type, 3);
        static_cast<std::promise<std::string>*>(context)->set_value(
            read(quorvane_dictionary_find(payload, "took")));
    };
    ASSERT_EQ(
        quorvane_client_set_aggregating_session_info(client.get(), info.get(), user.get(), take, nullptr,
                                                     &received, QUORVANE_DEFAULT_TIMEOUT, nullptr),
        QUORVANE_OK);
    ASSERT_EQ(quorvane_client_start(client.get(), QUORVANE_DEFAULT_TIMEOUT, nullptr, nullptr), QUORVANE_OK);
    EXPECT_EQ(quorvane_client_send_and_forget(client.get(), 12, 3, payload(0.25).get(), 0, nullptr),
              QUORVANE_OK);
    auto text = received.get_future();
    ASSERT_EQ(text.wait_for(kSoon), std::future_status::ready);
    EXPECT_EQ(text.get(), "0.250000");
    EXPECT_EQ(quorvane_client_dropped_events(client.get()), 0u);
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
