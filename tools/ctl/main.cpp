#include "tools/common/Failure.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/CtlOptions.h"

#include <cstdio>
#include <exception>

#include <fmt/format.h>

int main(int argc, char** argv) {
    int status = 0;
    try {
        const auto command = quorvane::ctl::readCommand(argc, argv, status);
        if (command) std::visit([](const auto& given) { quorvane::ctl::run(given); }, *command);
    } catch (const quorvane::tools::Failure& failure) {
        fmt::print(stderr, "quorvanectl: {}\n", failure.what());
        status = failure.status();
    } catch (const std::exception& error) {
        fmt::print(stderr, "quorvanectl: {}\n", error.what());
        status = quorvane::tools::kFailed;
    }
    return status;
}
