// Measures a whole quorvaned: its own process in a folder of its own, fed over its socket, posting to an
// HTTPS server. Every claim is a ratio of two measurements of one run, so that the machine and what else it
// does count in both.

#include "bench/BenchOptions.h"
#include "bench/Report.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace quorvane::bench {
namespace {

constexpr int kExitTooBusy = 2;

using Part = std::pair<std::string, std::function<void(const Options&)>>;

const std::vector<Part>& parts() {
    static const std::vector<Part> all{
        {"events", measureEventCost},
        {"batches", measureBatchedCalls},
        {"application", measureApplicationCost},
        {"waiting", measureWaitingCalls},
        {"counts", measureEventCounts},
        {"memory", measureMemory},
        {"stall", measureStalledCollector},
        {"idle", measureIdleness},
        {"hierarchy", measureHierarchy},
        {"datagrams", measureDatagrams},
        {"uploads", measureUploads},
    };
    return all;
}

std::vector<std::string> partNames() {
    std::vector<std::string> names;
    for (const Part& part : parts()) names.push_back(part.first);
    return names;
}

}  // namespace

void Options::shorten() {
    for (std::uint64_t* amount :
         {&events, &waitingCalls, &growthEvents, &sessions, &datagrams, &uploadMegabytes})
        *amount = std::max<std::uint64_t>(*amount / 10, 1);
    idle = std::max(idle / 2, std::chrono::seconds(1));
}

}  // namespace quorvane::bench

int main(int argc, char** argv) try {
    using namespace quorvane::bench;
    Options options;
    bool quick = false;
    std::vector<std::string> chosen = partNames();
    CLI::App app(
        "Measures the quorvaned daemon from end to end. The exit status is 0 when all bounds were kept, 1 when one was missed, "
        "and 2 when none was but the machine was too busy to judge them all.");
    app.add_option("part", chosen, "What to measure; everything by default")
        ->check(CLI::IsMember(partNames()));
    app.add_flag("--quick", quick, "A tenth of everything");
    app.add_option("--events", options.events, "Events of the load")->capture_default_str();
    app.add_option("--growth-events", options.growthEvents, "Events to watch the memory over")
        ->capture_default_str();
    app.add_option("--sessions", options.sessions, "Sessions to measure the memory of one by")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    if (quick) options.shorten();
    for (const Part& part : parts())
        if (std::find(chosen.begin(), chosen.end(), part.first) != chosen.end()) part.second(options);
    if (anyMissed()) return EXIT_FAILURE;
    if (!anyUnjudged()) return EXIT_SUCCESS;
    fmt::print("\nThe machine was too busy to judge every bound.\n");
    return kExitTooBusy;
} catch (const std::exception& exception) {
    fmt::print(stderr, "quorvane-bench-end-to-end: {}\n", exception.what());
    return EXIT_FAILURE;
}
