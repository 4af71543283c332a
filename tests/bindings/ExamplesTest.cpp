#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonFixture.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace quorvane::test {
namespace {

using testing::HasSubstr;

/// A device that posts every event. What runs beside it finds its daemon, and the Python package.
class Bindings : public testing::Test {
  protected:
    Bindings() {
        device.serveStorebag(device.httpPostSection());
        device.start();
    }

    void succeed(const std::vector<std::string>& command) {
        const ProgramResult result = runProgram(command, {{"QUORVANE_ROOT", device.root().string()},
                                                          {"QUORVANE_LIBRARY", QUORVANE_LIBRARY},
                                                          {"NODE_PATH", QUORVANE_NODE_MODULES},
                                                          {"PYTHONDONTWRITEBYTECODE", "1"},
                                                          {"PYTHONPATH", QUORVANE_SOURCE "/client/python"}});
        EXPECT_EQ(result.status, 0) << command[0] << '\n' << result.output << result.errors;
    }

    /// The key that the examples set.
    std::string postedFrom() {
        if (!device.waitForEvents(12, 1)) return "";
        return device.postedEvents(12)[0].text("from").value_or("(none)");
    }

    DaemonFixture device;
};

/// A sanitizer's library has to be loaded before all others, which an interpreter does not do.
bool isSanitized() {
    return std::string(QUORVANE_SANITIZERS) != "";
}

TEST_F(Bindings, ThePythonPackageKeepsItsPromises) {
    if (isSanitized()) GTEST_SKIP();
    succeed({QUORVANE_PYTHON, QUORVANE_SOURCE "/tests/bindings/test_quorvane.py"});
    ASSERT_TRUE(device.waitForEvents(21, 1));
    const Dictionary record = device.postedEvents(21)[0];
    EXPECT_EQ(record.text("text"), "\u00e9");
    EXPECT_TRUE(record.boolean("yes"));
    EXPECT_EQ(record.integer("least"), INT64_MIN);
    EXPECT_EQ(record.unsignedInteger("most"), UINT64_MAX);
    EXPECT_EQ(record.find("took")->real(), 0.25);
    EXPECT_TRUE(device.waitForEvents(22, 5));
}

TEST_F(Bindings, TheExampleInC) {
    succeed({QUORVANE_EXAMPLES "/report-from-c"});
    EXPECT_EQ(postedFrom(), "C");
}

TEST_F(Bindings, TheExampleInPython) {
    if (isSanitized()) GTEST_SKIP();
    succeed({QUORVANE_PYTHON, QUORVANE_SOURCE "/examples/report.py"});
    EXPECT_EQ(postedFrom(), "Python");
}

TEST_F(Bindings, TheExampleInPythonOverDBus) {
    succeed({QUORVANE_PYTHON, QUORVANE_SOURCE "/examples/report-dbus.py"});
    EXPECT_EQ(postedFrom(), "Python over D-Bus");
}

TEST_F(Bindings, TheExampleInJavaScriptOverDBus) {
    if (!std::filesystem::exists(QUORVANE_NODE_MODULES "/dbus-next")) GTEST_SKIP() << "needs dbus-next";
    succeed({"/usr/bin/env", "node", QUORVANE_SOURCE "/examples/report.js"});
    EXPECT_EQ(postedFrom(), "JavaScript");
}

TEST_F(Bindings, TheDocumentedLineForBusctl) {
    std::ifstream file(QUORVANE_SOURCE "/docs/DBUS.md");
    const std::string document(std::istreambuf_iterator<char>(file), {});
    const auto start = document.find("busctl --address=");
    ASSERT_NE(start, std::string::npos);
    std::string line = document.substr(start, document.find("\n\n", start) - start);
    const std::string path = "/run/quorvane/com.velmora.quorvaned";
    line.replace(line.find(path), path.size(), device.socketPath());
    succeed({"/bin/sh", "-c", line});
    ASSERT_TRUE(device.waitForEvents(12, 1));
    EXPECT_EQ(device.postedEvents(12)[0].find("took")->real(), 0.25);
}

}  // namespace
}  // namespace quorvane::test
