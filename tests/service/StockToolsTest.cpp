#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonFixture.h"

#include <fstream>
#include <iterator>

namespace quorvane::test {
namespace {

using testing::HasSubstr;

/// What people have at hand to talk to the daemon without our client library.
class StockToolsTest : public testing::Test {
  protected:
    ProgramResult gdbus(const std::string& command, std::vector<std::string> rest = {}) const {
        std::vector<std::string> args{"/usr/bin/gdbus", command,
                                      "--address",      "unix:path=" + _device.socketPath(),
                                      "--dest",         "com.velmora.quorvaned",
                                      "--object-path",  "/com/velmora/quorvaned"};
        args.insert(args.end(), rest.begin(), rest.end());
        return runProgram(args);
    }

    ProgramResult call(const std::string& method, std::vector<std::string> arguments = {}) const {
        arguments.insert(arguments.begin(),
                         {"--method", "com.velmora.quorvaned.ClientSessionInterface." + method});
        return gdbus("call", arguments);
    }

    DaemonFixture _device;
};

std::string installedInterface(const std::string& name) {
    std::ifstream file(QUORVANE_PACKAGING "/dbus/com.velmora.quorvaned." + name + ".xml");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const auto start = text.find(" <interface");
    return start == std::string::npos ? name : text.substr(start, text.find("</node>") - start);
}

TEST_F(StockToolsTest, TheInstalledInterfacesAreShownAndServed) {
    _device.serveStorebag(_device.httpPostSection());
    _device.start();
    const ProgramResult shown = gdbus("introspect", {"--xml"});
    EXPECT_EQ(shown.status, 0) << shown.errors;
    for (const char* name : {"ClientSessionInterface", "EventBatch", "Inspection", "SandboxExtension"})
        EXPECT_THAT(shown.output, HasSubstr(installedInterface(name)));

    const std::string session = "{'SessionID': <uint32 7>, 'ClientType': <5>}";
    EXPECT_EQ(call("SendMessageWithCategory", {"12", "3", "[{'key': <'text'>}]"}).output, "(@as [],)\n");
    EXPECT_EQ(call("SendMessageWithSessionInfo", {session, "[]", "12", "3", "[{'n': <9>}]"}).output,
              "('finished',)\n");
    ASSERT_TRUE(_device.waitForEvents(12, 1));
    EXPECT_EQ(_device.postedEvents(12)[0].integer("n"), 9);
    const ProgramResult unanswered =
        call("SendMessageWithSessionInfo", {"--timeout", "1", "{}", "[]", "1", "2", "[]"});
    EXPECT_THAT(unanswered.errors, HasSubstr("Timeout was reached")) << "it lacks the identifiers";
}

}  // namespace
}  // namespace quorvane::test
