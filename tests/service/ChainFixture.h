#pragma once

#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonFixture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::test {

/// The category of the tests' own events.
inline constexpr std::uint16_t kOurs = 12;

/// Client types by what their sessions are in a chain.
enum class Place : std::uint32_t { Top = 5, Middle = 6, Bottom = 8, SilentTop = 9, SampledOutTop = 10 };

/// A client in a process of its own, ChainClient.cpp, which does what it is told.
class ChainProcess {
  public:
    struct Options {
        bool aggregates = false;
        bool batches = false;
    };

    ChainProcess(const DaemonFixture& device, Place place, std::uint32_t sessionID, Options options);
    ~ChainProcess();
    ChainProcess(const ChainProcess&) = delete;
    ChainProcess& operator=(const ChainProcess&) = delete;

    std::uint32_t sessionID() const { return _sessionID; }

    /// Has the client run the command and waits for its answer; empty when none comes in time.
    std::string tell(const std::string& command);
    /// Ends the session and waits until the daemon has forgotten it.
    void leave(DaemonFixture& device);

    /// The numbers of the events that the aggregation block has got, in order.
    std::vector<std::int64_t> received() const;
    /// Waits for so many of them; what has come in the end.
    std::vector<std::int64_t> waitForReceived(std::size_t count) const;
    /// Waits until the client has written the line.
    bool says(const std::string& line) const;

    void signal(int number) { _process->signal(number); }

  private:
    std::vector<std::string> lines() const;

    const std::uint32_t _sessionID;
    const std::filesystem::path _commandFile;
    int _commands = -1;
    int _told = 0;
    std::unique_ptr<ChildProcess> _process;
};

/// A daemon whose storebags set up chains of three levels.
class ChainFixture : public testing::Test {
  protected:
    void SetUp() override;

    using Options = ChainProcess::Options;

    /// A client that has done nothing yet; every one has another session ID.
    std::unique_ptr<ChainProcess> process(Place place, Options options = {});
    /// A client whose session has been started under the client name.
    std::unique_ptr<ChainProcess> started(Place place, const std::string& name, Options options = {});

    /// The identifier under which the event of that number was posted; empty when it is not in time.
    std::string postedUnder(std::int64_t number) const;
    /// How often the daemon has logged the text so far.
    std::size_t logged(std::string_view text);

    DaemonFixture _device;

  private:
    std::uint32_t _lastSessionID = 100;
};

/// A command of ChainProcess.
std::string startAs(const std::string& name);
std::string renameTo(const std::string& name);
std::string send(std::int64_t number);

}  // namespace quorvane::test
