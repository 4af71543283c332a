#include "tests/service/ChainFixture.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <random>
#include <thread>

namespace quorvane::test {
namespace {

constexpr int kGroups = 8;
/// So many of the groups have an aggregating top from the first event to the last.
constexpr int kSettledGroups = 6;
constexpr int kWanderers = 58;
constexpr std::array kPlaces{Place::Top, Place::Middle, Place::Bottom};

using Tops = std::vector<std::unique_ptr<ChainClient>>;

/// How long clients come and go.
std::chrono::seconds stressTime() {
    const char* seconds = std::getenv("QUORVANE_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 5);
}

/// Who has to get an event.
struct Expected {
    const ChainClient* receiver = nullptr;  ///< Null for nobody, or for whoever happened to aggregate.
    bool maybe = false;                     ///< Nobody is right as well.

    bool allows(const std::vector<const ChainClient*>& by) const {
        if (by.empty()) return receiver == nullptr || maybe;
        return by.size() == 1 && (by[0] == receiver || (receiver == nullptr && maybe));
    }
};

/// A client that joins groups, sends, moves on and leaves, over and over, as its seed has it.
class Wanderer {
  public:
    Wanderer(DaemonFixture& device, int index, const Tops& tops)
        : _device(device),
          _tops(tops),
          _random(static_cast<unsigned>(index) + 1),
          _lastNumber(index * 1'000'000ll) {}

    void wander(const std::atomic<bool>& over) {
        while (!over) liveOnce(over);
    }

    const std::map<std::int64_t, Expected>& sent() const { return _sent; }
    /// One for each of its sessions.
    const std::list<ChainClient>& lives() const { return _lives; }

  private:
    int draw(int bound) { return static_cast<int>(_random() % static_cast<unsigned>(bound)); }

    /// Its group's name, however it is written.
    std::string name() { return (draw(2) == 0 ? "GROUP" : "group") + std::to_string(_group); }

    void liveOnce(const std::atomic<bool>& over) {
        _level = draw(3);
        _options = {.aggregates = draw(3) == 0, .batches = true, .leavesAbruptly = draw(4) == 0};
        ChainClient& client = _lives.emplace_back(_device, kPlaces.at(_level), 1, _options);
        _group = draw(kGroups);
        client.start(name());
        const std::int64_t before = _lastNumber;
        for (int acts = 1 + draw(12); acts > 0 && !over; --acts) act(client);
        // What an abrupt end leaves behind must have been taken; what comes back need not be read.
        if (_options.leavesAbruptly) client.flush();
        const bool awaitsItsLast = _level == 0 && _options.aggregates && !_options.leavesAbruptly;
        EXPECT_TRUE(!awaitsItsLast || _lastNumber == before ||
                    eventually([&] { return std::ranges::count(client.received(), _lastNumber) == 1; }));
        client.hangUp();
    }

    void act(ChainClient& client) {
        switch (draw(8)) {
            case 0:
                _group = draw(kGroups);
                client.rename(name());
                break;
            case 1:
                client.flush();
                client.introduce(name());  // While others read what it told before.
                // Nobody is below the lowest level, to miss it while it is set up anew.
                if (_level == 2) client.start();
                break;
            default:
                for (int events = 1 + draw(8); events > 0; --events) {
                    _sent[++_lastNumber] = expected(client);
                    client.sendAndForget(_lastNumber);
                }
                if (draw(2) == 0) client.flush();
        }
    }

    Expected expected(const ChainClient& client) const {
        if (_level == 0) return {_options.aggregates ? &client : nullptr, _options.leavesAbruptly};
        if (_group < kSettledGroups) return {_tops.at(_group).get(), false};
        return {nullptr, true};
    }

    DaemonFixture& _device;
    const Tops& _tops;
    std::minstd_rand _random;
    std::int64_t _lastNumber;
    std::map<std::int64_t, Expected> _sent;
    std::list<ChainClient> _lives;

    // The life it leads now.
    int _level = 0;
    int _group = 0;
    ChainClient::Options _options;
};

class HierarchyStressTest : public ChainFixture {
  protected:
    HierarchyStressTest() { _device.start({{"QUORVANE_LOG", "stderr"}}); }

    /// How many of the daemon's threads serve a client; they say so in their names.
    std::ptrdiff_t clientThreads() {
        const std::string tasks = "/proc/" + std::to_string(_device.daemon().pid()) + "/task";
        return std::ranges::count_if(std::filesystem::directory_iterator(tasks), [](const auto& task) {
            std::string name;
            std::getline(std::ifstream(task.path() / "comm"), name);
            return name == "client " + std::to_string(::getuid());
        });
    }

    static std::string group(int number) { return "group" + std::to_string(number); }

    /// A chain through the group hangs together of the sessions that are there, and of no others.
    void expectInOrder(int number, const std::string& top) {
        const auto middle = started(Place::Middle, group(number));
        const auto bottom = started(Place::Bottom, group(number));
        const std::string second = postedBy(*middle, ++_lastNumber);
        const std::string third = postedBy(*bottom, ++_lastNumber);
        EXPECT_TRUE(second.starts_with(top.empty() ? "" : top + ".")) << second;
        EXPECT_EQ(std::ranges::count(second, '.'), top.empty() ? 0 : 1) << second;
        EXPECT_TRUE(third.starts_with(second + ".")) << third;
        EXPECT_EQ(std::ranges::count(third, '.'), top.empty() ? 1 : 2) << third;
    }

    std::int64_t _lastNumber = 900'000'000;
};

/// Every event came to the receiver that it was for, once, and to no other one.
void expectRelayed(const std::list<Wanderer>& wanderers, const Tops& tops) {
    std::map<std::int64_t, std::vector<const ChainClient*>> received;
    const auto take = [&](const ChainClient& client) {
        for (const std::int64_t number : client.received()) received[number].push_back(&client);
    };
    for (const auto& top : tops) take(*top);
    for (const Wanderer& wanderer : wanderers)
        for (const ChainClient& client : wanderer.lives()) take(client);
    EXPECT_GT(received.size(), tops.size());
    int wrong = 0;
    for (const Wanderer& wanderer : wanderers)
        for (const auto& [number, expected] : wanderer.sent())
            wrong += expected.allows(received[number]) ? 0 : 1;
    EXPECT_EQ(wrong, 0);
}

TEST_F(HierarchyStressTest, ClientsThatComeAndGoAtRandomLeaveNothingOutOfPlace) {
    Tops tops;
    for (int number = 0; number < kSettledGroups; ++number)
        tops.push_back(started(Place::Top, group(number), {.aggregates = true}));
    std::list<Wanderer> wanderers;
    {
        std::atomic<bool> over = false;
        std::vector<std::thread> threads;
        for (int index = 0; index < kWanderers; ++index) {
            Wanderer& wanderer = wanderers.emplace_back(_device, index, tops);
            threads.emplace_back([&] { wanderer.wander(over); });
        }
        std::this_thread::sleep_for(stressTime());
        over = true;
        for (std::thread& thread : threads) thread.join();
    }
    for (int number = 0; number < kGroups; ++number) {
        const bool settled = number < kSettledGroups;
        expectInOrder(number, settled ? postedBy(*tops.at(number), ++_lastNumber) : "");
        // Behind everything sent before.
        EXPECT_TRUE(!settled || eventually([&] {
            return std::ranges::count(tops.at(number)->received(), _lastNumber) == 1;
        }));
    }
    EXPECT_TRUE(eventually([this] { return clientThreads() == kSettledGroups; }));
    for (const auto& top : tops) top->hangUp();
    expectRelayed(wanderers, tops);

    std::map<std::int64_t, int> sent;
    for (const Wanderer& wanderer : wanderers)
        for (const auto& [number, expected] : wanderer.sent()) sent[number] = 1;
    EXPECT_TRUE(
        _device.waitForEvents(kOurs, sent.size() + static_cast<std::size_t>(_lastNumber - 900'000'000)));
    std::map<std::int64_t, int> posted;
    for (const Dictionary& record : _device.postedEvents(kOurs))
        if (record.integer("n") <= 900'000'000) ++posted[record.integer("n")];
    EXPECT_TRUE(posted == sent) << "every event also went to the server, once";

    EXPECT_TRUE(eventually([this] { return clientThreads() == 0; }));
    EXPECT_EQ(_device.daemon().terminate(), 0);
    EXPECT_EQ(logged("Told to end"), 0u) << "no session is left";
}

}  // namespace
}  // namespace quorvane::test
