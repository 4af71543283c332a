#include "tests/service/ChainFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace quorvane::test {

// The process.

ChainProcess::ChainProcess(const DaemonFixture& device, Place place, std::uint32_t sessionID, Options options)
    : _sessionID(sessionID), _commandFile(device.root() / ("commands-" + std::to_string(sessionID))) {
    EXPECT_EQ(::mkfifo(_commandFile.c_str(), 0600), 0);
    // Open for reading too, it is there whether or not the client still reads.
    _commands = ::open(_commandFile.c_str(), O_RDWR | O_CLOEXEC);
    std::vector<std::string> args{QUORVANE_CHAIN_CLIENT, device.socketPath(), _commandFile,
                                  std::to_string(static_cast<std::uint32_t>(place)),
                                  std::to_string(sessionID)};
    if (options.aggregates) args.emplace_back("aggregate");
    if (options.batches) args.emplace_back("batch");
    _process = ChildProcess::start(args);
    EXPECT_NE(_process, nullptr);
}

ChainProcess::~ChainProcess() {
    ::close(_commands);
}

std::string ChainProcess::tell(const std::string& command) {
    const std::string line = command + "\n";
    EXPECT_EQ(::write(_commands, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    const std::string number = "#" + std::to_string(++_told) + " ";
    std::string answer;
    const bool answered = eventually([&] {
        for (const std::string& said : lines())
            if (said.starts_with(number)) answer = said.substr(number.size());
        return !answer.empty() || !_process->running();
    });
    EXPECT_TRUE(answered && !answer.empty()) << command << ": " << _process->output() << _process->errors();
    return answer;
}

void ChainProcess::leave(DaemonFixture& device) {
    tell("leave");
    EXPECT_TRUE(device.logs("dealloc: QuorvanedSession dealloc: " + std::to_string(_sessionID) + "\n"));
}

std::vector<std::int64_t> ChainProcess::received() const {
    std::vector<std::int64_t> numbers;
    for (const std::string& line : lines())
        if (line.starts_with("event ")) numbers.push_back(std::atoll(line.c_str() + 6));
    return numbers;
}

std::vector<std::int64_t> ChainProcess::waitForReceived(std::size_t count) const {
    eventually([&] { return received().size() >= count; });
    return received();
}

bool ChainProcess::says(const std::string& line) const {
    return eventually([&] {
        const auto all = lines();
        return std::find(all.begin(), all.end(), line) != all.end();
    });
}

std::vector<std::string> ChainProcess::lines() const {
    const std::string output = _process->output();
    // A line that is still being read is none yet.
    std::istringstream whole(output.substr(0, output.rfind('\n') + 1));
    std::vector<std::string> lines;
    for (std::string line; std::getline(whole, line);) lines.push_back(line);
    return lines;
}

// The device.

void ChainFixture::SetUp() {
    const auto serve = [this](const char* storebag, Dictionary clientEntry) {
        // What fills events up is for aggregators only.
        clientEntry.set("filters", Array{Value(Dictionary{{"key", "fill"}, {"action", "remove"}})});
        _device.serveStorebag(_device.httpPostSection(clientEntry), storebag);
    };
    serve("pelmark", {{"hierarchy", 0}});
    serve("stremcore", {{"hierarchy", 1}});
    serve("vistabox", {{"hierarchy", 2}});
    serve("tunewave", {{"locale_whitelist", Array{}}});  // No country at all.
    serve("hintry", {{"sampling_threshold", -1.0}});     // Below every draw.
    _device.start();
}

std::unique_ptr<ChainProcess> ChainFixture::process(Place place, Options options) {
    return std::make_unique<ChainProcess>(_device, place, ++_lastSessionID, options);
}

std::unique_ptr<ChainProcess> ChainFixture::started(Place place, const std::string& name, Options options) {
    auto made = process(place, options);
    made->tell(startAs(name));
    return made;
}

std::string ChainFixture::postedUnder(std::int64_t number) const {
    std::string identifier;
    eventually([&] {
        for (const Dictionary& record : _device.postedEvents(kOurs))
            if (record.integer("n") == number) identifier = *record.string("_sessionID");
        return !identifier.empty();
    });
    return identifier;
}

std::size_t ChainFixture::logged(std::string_view text) {
    const std::string log = _device.daemon().errors();
    std::size_t count = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
}

std::string startAs(const std::string& name) {
    return "start " + name + " Chain";
}

std::string renameTo(const std::string& name) {
    return "names " + name + " Chain";
}

std::string send(std::int64_t number) {
    return "send " + std::to_string(number);
}

}  // namespace quorvane::test
