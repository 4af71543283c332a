#include "platform/base/Log.h"
#include "tools/common/Failure.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/StorebagOptions.h"

#include <cstdio>
#include <exception>
#include <string_view>

#include <fmt/format.h>

using namespace quorvane::tools;

int main(int argc, char** argv) {
    // The daemon's own code is asked what it would do, and its log is no place for the answers.
    quorvane::platform::setLogSink([](quorvane::platform::LogLevel, std::string_view) {});
    int status = 0;
    try {
        const auto command = readCommand(argc, argv, status);
        return command ? std::visit([](const auto& given) { return run(given); }, *command) : status;
    } catch (const Failure& failure) {
        fmt::print(stderr, "quorvane-storebag: {}\n", failure.what());
        return failure.status();
    } catch (const std::exception& error) {
        fmt::print(stderr, "quorvane-storebag: {}\n", error.what());
        return kFailed;
    }
}
