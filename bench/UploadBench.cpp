#include "bench/BenchOptions.h"
#include "bench/Die.h"
#include "bench/Load.h"
#include "bench/Report.h"
#include "bench/Unavoidable.h"
#include "bench/World.h"
#include "platform/value/Bytes.h"

#include <unistd.h>

#include <fstream>

#include <fmt/format.h>

namespace quorvane::bench {

namespace {

/// Lines of a log.
Data logText(std::size_t size) {
    std::string text;
    for (std::uint64_t number = 0; text.size() < size; ++number)
        text += fmt::format("{}.{:06} {}\n", 1'760'000'000 + number / 100, number * 7919 % 1'000'000,
                            payload(number).description());
    text.resize(size);
    return {text.begin(), text.end()};
}

struct Took {
    std::chrono::duration<double> time{};
    Nanoseconds cpu{};
};

template <typename Function>
Took measure(pid_t process, const Function& function) {
    const CpuMeter cpu(process);
    const auto start = std::chrono::steady_clock::now();
    function();
    return {std::chrono::steady_clock::now() - start, cpu.used()};
}

}  // namespace

void measureUploads(const Options& options) {
    heading(fmt::format("Upload of a file of {} MiB", options.uploadMegabytes));
    const Data text = logText(options.uploadMegabytes << 20);
    World world;
    const std::filesystem::path file = world.root() / "log.txt";
    std::ofstream(file, std::ios::binary) << platform::textOf(text);
    Client client = world.openSession({.profile = Profile::Upload});

    const Took zlib = measure(::getpid(), [&] { compressAlone(text); });
    const Took upload = measure(world.daemon(), [&] {
        if (!orDie(client.uploadFile(file), "upload")) die("upload", "no backend took the file");
    });
    const auto megabytes = static_cast<double>(options.uploadMegabytes);
    row("zlib alone", "{:.1f} MiB/s", megabytes / zlib.time.count());
    row("upload", "{:.1f} MiB/s", megabytes / upload.time.count());
    row("time, upload / zlib", "{:.2f}", upload.time / zlib.time);
    row("CPU, daemon / zlib", "{:.2f}", upload.cpu / zlib.cpu);
    row("memory of the daemon afterwards", "{:.2f} MiB",
        static_cast<double>(anonymousBytes(world.daemon())) / (1 << 20));
}

}  // namespace quorvane::bench
