#include "collector/BagFolder.h"
#include "collector/Certificate.h"
#include "collector/CollectorOptions.h"
#include "collector/DatagramServer.h"
#include "collector/EventPosts.h"
#include "collector/EventSink.h"
#include "collector/StartError.h"
#include "collector/StopSignal.h"
#include "collector/UploadReceiver.h"
#include "collector/WebServer.h"
#include "platform/base/Clock.h"
#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/value/Bytes.h"

#include <pthread.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <ctime>

#include <exception>
#include <filesystem>
#include <optional>
#include <span>
#include <thread>

#include <fmt/chrono.h>
#include <fmt/format.h>

using namespace quorvane;
using namespace quorvane::collector;

namespace {

void printLogLine(platform::LogLevel level, std::string_view line) {
    const auto now = platform::timeOfDay();
    const char* mark = level <= platform::LogLevel::Warning ? "! " : "";
    const auto text = fmt::format("{:%H:%M:%S}.{:03} {}{}\n", fmt::localtime(now.seconds),
                                  now.microseconds / 1000, mark, line);
    // One write a line, so that lines of several threads do not mix.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.data(), text.size());
}

void startLog(bool quiet) {
    platform::setLogSink(printLogLine);
    platform::logThreshold = static_cast<int>(quiet ? platform::LogLevel::Warning : platform::LogLevel::Info);
}

/// Must come before the first thread: threads inherit what is blocked, and only waitForEnd() takes signals.
sigset_t blockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void waitForEnd(const sigset_t& signals, EventSink& sink) {
    int number = 0;
    while (sigwait(&signals, &number) == 0 && number == SIGHUP) sink.reopen();
}

void writeFile(const std::string& path, std::string_view text) {
    const std::string folder = std::filesystem::path(path).parent_path();
    const bool made = folder.empty() || platform::createDirectories(folder);
    if (!made || !platform::replaceFile(path, platform::bytesOf(text), 0644))
        throw StartError(fmt::format("cannot write {}", path));
}

Certificate certificateOf(const Options& options) {
    if (options.certificateFile && options.keyFile)
        return readCertificate(*options.certificateFile, *options.keyFile);
    std::vector<std::string> names{"localhost", "127.0.0.1", "::1", options.web.address};
    names.insert(names.end(), options.names.begin(), options.names.end());
    return makeCertificate(names);
}

void tellReady(const Options& options, const WebServer& server,
               const std::optional<DatagramServer>& datagrams) {
    std::string text = fmt::format("Listening on {}\n", server.url());
    if (datagrams)
        text += fmt::format("Taking datagrams on {} port {}\n", options.web.address, datagrams->port());
    if (options.readyFile) writeFile(*options.readyFile, text);
    fmt::print("{}", text);
    std::fflush(stdout);
}

/// Ends the program as a signal from outside does.
void endProgram() {
    ::kill(::getpid(), SIGTERM);
}

int run(const Options& options) {
    platform::allowAllDescriptors();
    const sigset_t signals = blockSignals();
    StopSignal stop;
    EventSink sink(options.eventFile);
    EventPosts posts(sink, options.removedKeys);
    std::optional<BagFolder> bags;
    if (options.bagFolder) bags.emplace(*options.bagFolder);
    std::optional<UploadReceiver> uploads;
    if (options.uploadFolder) uploads.emplace(*options.uploadFolder, sink);
    std::optional<DatagramServer> datagrams;
    if (options.udpPort) datagrams.emplace(options.web.address, *options.udpPort, sink, stop);
    const Certificate certificate = certificateOf(options);
    if (options.trustOutFile) writeFile(*options.trustOutFile, certificate.chain);
    const WebServer::Parts parts{
        .bags = bags ? &*bags : nullptr, .posts = posts, .uploads = uploads ? &*uploads : nullptr};
    WebServer server(options.web, certificate, parts, stop);
    tellReady(options, server, datagrams);

    bool orderly = false;
    std::thread serving([&] {
        orderly = server.serve();
        if (!orderly) endProgram();
    });
    std::thread receiving([&] {
        if (datagrams) datagrams->serve();
    });
    waitForEnd(signals, sink);
    stop.raise();
    server.stop();
    serving.join();
    receiving.join();
    platform::logInfo("Ended");
    return orderly ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    const auto options = readOptions(argc, argv, status);
    if (!options) return status;
    startLog(options->quiet);
    try {
        return run(*options);
    } catch (const std::exception& error) {
        fmt::print(stderr, "quorvane-collector: {}\n", error.what());
        return 1;
    }
}
