#include "tools/common/Output.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/OpenSession.h"
#include "tools/ctl/PrintStates.h"

namespace quorvane::ctl {

void run(const States& command) {
    Client client = connect(command.session);
    const ReportingStates states = start(client, command.session);
    printStates(command.session.json, states);
    if (!states) throw noStorebag(command.session);
}

void run(const DisplayURL& command) {
    Client client = connect(command.session);
    startWithStorebag(client, command.session);
    const std::string url = orFail(client.displayURL(timeoutOf(command.session)));
    if (url == "URL not available") throw tools::Failure(url);
    tools::printFact(command.session.json, {{"displayURL", url}}, url);
}

}  // namespace quorvane::ctl
