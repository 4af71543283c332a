#include "backends/JoularyBackend.h"

#include "platform/Json.h"
#include "tests/backends/BackendFixture.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace quorvane {
namespace {

class JoularyBackendTest : public BackendFixture {
  protected:
    std::string powerLog() const { return read("var/lib/quorvane/power-log.jsonl"); }

    const std::shared_ptr<JoularyBackend> backend =
        JoularyBackend::initWithName("joulary", std::make_shared<const Dictionary>(), "Fernlight");
};

TEST_F(JoularyBackendTest, LaysItsOwnValuesOverTheMessagesAndWritesThem) {
    const Dictionary message{{"level", 80u}, {"event", "mine"}, {"respCode", -1}};
    EXPECT_EQ(backend->sendMessage(&message, {130, 0}, 65535, 404, EventID{65535}), std::nullopt);
    const auto line = platform::parseJson(powerLog());
    ASSERT_TRUE(line && line->dictionary());
    EXPECT_EQ(line->dictionary()->integer("agent"), 28);
    EXPECT_EQ(*line->dictionary()->string("event"), "Strevad-QVN");
    EXPECT_EQ(*line->dictionary()->dictionary("values"),
              (Dictionary{{"event", 65535}, {"level", 80}, {"method", 65535}, {"respCode", 404}}));
}

TEST_F(JoularyBackendTest, DropsMethodZeroAndEmptyMessages) {
    const Dictionary message{{"level", 80u}};
    const Dictionary empty;
    backend->sendMessage(&message, {130, 0}, 0, 404, EventID{1});
    backend->sendMessage(&empty, {130, 0}, 5, 404, EventID{2});
    backend->sendMessage(nullptr, {130, 0}, 5, 404, EventID{3});
    EXPECT_EQ(powerLog(), "");
    EXPECT_EQ(logged("<"), 0u);
}

}  // namespace
}  // namespace quorvane
