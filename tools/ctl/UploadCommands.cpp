#include "tools/common/Files.h"
#include "tools/common/Json.h"
#include "tools/common/Output.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/OpenSession.h"

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

Array logDataOf(const std::string& file) {
    const auto bytes = tools::readBytes(file);
    const std::string name(tools::nameOfInput(file));
    Value value = tools::parseJsonOrFail(tools::textOf(bytes), name);
    if (value.array() == nullptr) throw tools::Failure(fmt::format("{}: a JSON array is expected", name));
    return std::move(*value.array());
}

void printUploaded(const SessionOptions& session, bool taken, std::string_view name) {
    if (!taken) throw tools::Failure(fmt::format("{}: not uploaded; the daemon's log tells why", name));
    tools::printFact(session.json, {{"uploaded", name}}, fmt::format("uploaded: {}", name));
}

}  // namespace

void run(const Upload& command) {
    Client client = connect(command.session);
    startWithStorebag(client, command.session);
    const bool taken = orFail(client.uploadFile(command.file, nullptr, timeoutOf(command.session)));
    printUploaded(command.session, taken, command.file);
}

void run(const UploadLog& command) {
    const Array logData = logDataOf(command.file);
    Client client = connect(command.session);
    startWithStorebag(client, command.session);
    const bool taken = orFail(client.uploadLogData(logData, timeoutOf(command.session)));
    printUploaded(command.session, taken, tools::nameOfInput(command.file));
}

}  // namespace quorvane::ctl
