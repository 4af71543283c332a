#include "tests/support/DaemonFixture.h"

#include <quorvane/quorvane.h>

#include <cstdlib>
#include <new>

namespace {

/// How many allocations of this thread succeed before one fails; below 0 none does.
thread_local int t_allocations = -1;

void* allocate(std::size_t size) noexcept {
    if (t_allocations >= 0 && t_allocations-- == 0) return nullptr;
    return std::malloc(size);
}

void* allocateOrThrow(std::size_t size) {
    void* memory = allocate(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

// In place of the standard library's, also in libquorvane.
void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace quorvane::test {
namespace {

/// Calls the function until it succeeds, and lets each time one allocation more succeed before one fails.
template <typename Function>
void expectNoMemoryIsTold(const Function& function) {
    int tries = 0;
    for (int code = QUORVANE_NO_MEMORY; code != QUORVANE_OK; ++tries) {
        ASSERT_LT(tries, 1000);
        t_allocations = tries;
        code = function();
        const bool failed = t_allocations < 0;
        t_allocations = -1;
        if (code != QUORVANE_OK) {
            EXPECT_TRUE(failed);
            EXPECT_THAT(code, testing::AnyOf(QUORVANE_NO_MEMORY, QUORVANE_SYSTEM));
        }
    }
    EXPECT_GT(tries, 1);
}

TEST(CMemory, ItsLackIsACodeAndNeverThrown) {
    DaemonFixture device;
    device.serveStorebag(device.httpPostSection());
    device.start();
    QuorvaneDictionary* payload = nullptr;
    expectNoMemoryIsTold([&] {
        payload = quorvane_dictionary_new();
        return payload != nullptr ? QUORVANE_OK : QUORVANE_NO_MEMORY;
    });
    const std::string text(100, 'x');
    expectNoMemoryIsTold([&] { return quorvane_dictionary_set_text(payload, "key", text.c_str()); });
    expectNoMemoryIsTold([&] { return quorvane_dictionary_set_dictionary(payload, "inner", payload); });
    QuorvaneReporterOptions* options = quorvane_reporter_options_new();
    const std::string path = device.socketPath();
    expectNoMemoryIsTold([&] { return quorvane_reporter_options_set_socket_path(options, path.c_str()); });
    QuorvaneReporter* reporter = nullptr;
    expectNoMemoryIsTold([&] { return quorvane_reporter_start(options, &reporter, nullptr); });

    QuorvaneClientOptions* clientOptions = quorvane_client_options_new();
    quorvane_client_options_set_socket_path(clientOptions, path.c_str());
    QuorvaneClient* client = nullptr;
    expectNoMemoryIsTold([&] { return quorvane_client_connect(clientOptions, &client, nullptr); });
    QuorvaneSessionInfo* session = quorvane_session_info_new();
    expectNoMemoryIsTold(
        [&] { return quorvane_client_set_session_info(client, session, nullptr, 30'000, nullptr); });
    expectNoMemoryIsTold(
        [&] { return quorvane_client_send(client, 12, 3, payload, 0, 30'000, nullptr, nullptr); });
    expectNoMemoryIsTold([&] { return quorvane_client_start(client, 30'000, nullptr, nullptr); });

    quorvane_session_info_free(session);
    quorvane_client_free(client);
    quorvane_client_options_free(clientOptions);
    quorvane_reporter_free(reporter);
    quorvane_reporter_options_free(options);
    quorvane_dictionary_free(payload);
}

}  // namespace
}  // namespace quorvane::test
