#include "platform/loop/SerialQueue.h"

#include "platform/base/UniqueDescriptor.h"
#include "platform/loop/EventThread.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

namespace quorvane::platform {
namespace {

using namespace std::chrono_literals;

class SerialQueueTest : public testing::Test {
  protected:
    static SerialQueue queue() { return *SerialQueue::initWithLabel("test"); }
    static void wait(std::future<void> future) { ASSERT_EQ(future.wait_for(20s), std::future_status::ready); }
};

TEST_F(SerialQueueTest, RunsWhatManyThreadsPostOnePieceAfterAnotherInEachThreadsOrder) {
    constexpr int kThreads = 4;
    constexpr int kPieces = 500;
    const SerialQueue one = queue();
    const SerialQueue other = queue();
    int running = 0;  // No lock and no atomic: the queues share one thread.
    int ran = 0;
    bool inOrder = true;
    std::vector<int> next(kThreads);
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < kThreads; ++thread)
            threads.emplace_back([&, thread] {
                for (int piece = 0; piece < kPieces; ++piece)
                    (piece % 2 == 0 ? one : other).post([&, thread, piece] {
                        inOrder &= running++ == 0 && next[thread]++ == piece && onEventThread();
                        --running;
                        ++ran;
                    });
            });
    }
    one.perform([] {});
    EXPECT_EQ(ran, kThreads * kPieces);
    EXPECT_TRUE(inOrder);
    EXPECT_FALSE(onEventThread());
}

TEST_F(SerialQueueTest, PerformRunsAtOnceFromAQueueAndADelayedPieceAfterItsTime) {
    bool ran = false;
    queue().perform([&] { queue().perform([&] { ran = true; }); });
    EXPECT_TRUE(ran);

    std::promise<void> done;
    const auto start = std::chrono::steady_clock::now();
    queue().postAfter(20ms, [&] { done.set_value(); });
    wait(done.get_future());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST_F(SerialQueueTest, ATimerFiresEveryPeriodUntilItsOwnHandlerEndsIt) {
    std::unique_ptr<EventSource> timer;
    int fired = 0;
    std::promise<void> done;
    const auto start = std::chrono::steady_clock::now();
    queue().perform([&] {
        timer = queue().makeTimer(10ms, 1ms, [&] {
            if (++fired == 3) timer.reset();
        });
        timer->setCancelHandler([&] { done.set_value(); });
    });
    wait(done.get_future());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
    std::this_thread::sleep_for(40ms);  // The time for a fourth firing that must not come.
    queue().perform([&] {
        EXPECT_EQ(fired, 3);
        EXPECT_NE(queue().makeTimer(std::chrono::milliseconds::max(), 1ms, [] {}), nullptr);
        EXPECT_NE(queue().makeTimer(-1ms, 1ms, [] {}), nullptr);
    });
}

TEST_F(SerialQueueTest, AReadSourceAnswersUntilItIsCancelledAndThenLetsGoOfTheDescriptor) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    const UniqueDescriptor writer(ends[1]);
    UniqueDescriptor reader(ends[0]);
    std::unique_ptr<EventSource> source;
    std::string received;
    int cancels = 0;
    const SerialQueue here = queue();
    std::promise<void> got;
    here.perform([&] {
        source = here.makeReadSource(reader.get(), [&] {
            char byte = 0;
            if (::read(reader.get(), &byte, 1) != 1) return;
            received += byte;
            if (byte == 'b') {
                source->cancel();
                got.set_value();
            }
        });
        source->setCancelHandler([&] {
            ++cancels;
            reader.reset();
        });
    });
    ASSERT_EQ(::write(writer.get(), "a", 1), 1);
    ASSERT_EQ(::write(writer.get(), "b", 1), 1);
    wait(got.get_future());
    EXPECT_LT(::write(writer.get(), "c", 1), 0) << "the reader is closed";
    here.perform([&] {
        source->cancel();
        source.reset();
    });
    EXPECT_EQ(received, "ab");
    EXPECT_EQ(cancels, 1);
    here.perform([&] { EXPECT_EQ(here.makeReadSource(-1, [] {}), nullptr) << "no descriptor"; });
}

TEST_F(SerialQueueTest, ASourceCancelledByAnotherSourcesHandlerDoesNotRunThoughItIsDue) {
    const UniqueDescriptor descriptors[]{UniqueDescriptor(::eventfd(1, 0)),
                                         UniqueDescriptor(::eventfd(1, 0))};
    std::unique_ptr<EventSource> sources[2];
    int ran = 0;
    const SerialQueue here = queue();
    here.perform([&] {
        for (const int which : {0, 1})
            sources[which] = here.makeReadSource(descriptors[which].get(), [&] {
                ++ran;
                for (auto& source : sources) source.reset();
            });
    });
    for (bool over = false; !over;) here.perform([&] { over = ran > 0; });
    here.perform([&] { EXPECT_EQ(ran, 1); });
}

}  // namespace
}  // namespace quorvane::platform
