#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonFixture.h"

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

TEST_F(StockToolsTest, IntrospectionShowsTheWireContract) {
    _device.start();
    const ProgramResult shown = gdbus("introspect");
    EXPECT_EQ(shown.status, 0) << shown.errors;
    EXPECT_THAT(shown.output, HasSubstr(R"(  interface com.velmora.quorvaned.ClientSessionInterface {
    methods:
      SetSessionInfo(in  a{sv} sessionInfo,
                     in  aa{sv} userInfo,
                     in  as frameworksToCheck,
                     in  b hasAggregationBlock);
      StartConfig(out aas states);
      FetchStatesWithUserInfo(in  aa{sv} userInfo,
                              out aas states);
      FetchDisplayURL(out s displayURL);
      SendMessageWithCategory(in  q category,
                              in  q type,
                              in  aa{sv} payload,
                              out as answer);
      SendMessageWithDictionary(in  a{sv} message,
                                out as answer);
      FlushMessages(out as answer);
      UploadFileAtPath(in  s fileURL,
                       in  s extensionToken,
                       out b success);
      UploadLogData(in  av logData,
                    out b success,
                    out as error);
      SendMessageWithSessionInfo(in  a{sv} sessionInfo,
                                 in  aa{sv} userInfo,
                                 in  q category,
                                 in  q type,
                                 in  aa{sv} payload,
                                 out s answer);
)"));
    EXPECT_THAT(shown.output, HasSubstr(R"(  interface com.velmora.quorvaned.SandboxExtension {
    methods:
      Issue(in  h file,
            out s extensionToken);
)"));
}

TEST_F(StockToolsTest, CallsAreServed) {
    _device.serveStorebag(_device.httpPostSection());
    _device.start();
    const std::string session = "{'SessionID': <uint32 7>, 'ClientType': <5>}";
    EXPECT_EQ(call("SendMessageWithCategory", {"12", "3", "[{'key': <'text'>}]"}).output, "(@as [],)\n");
    EXPECT_EQ(call("FetchDisplayURL").output, "('URL not available',)\n");
    EXPECT_EQ(call("SetSessionInfo", {session, "[]", "[]", "false"}).output, "()\n");
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
