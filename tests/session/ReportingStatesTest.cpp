#include "tests/session/SessionFixture.h"

namespace quorvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ReportingStatesTest : public SessionFixture {
  protected:
    ReportingStatesTest() {
        platform::replaceRandomDraw([] { return 0.5; });
    }

    static Dictionary entryWithThreshold(double threshold) {
        Dictionary entry = entryWith("sampling_threshold", threshold);
        entry.set("hierarchy", 1);
        return entry;
    }

    Dictionary reporting(const std::string& name) const { return profile(name, entryWithThreshold(0.6)); }
    Dictionary sampledOut(const std::string& name) const { return profile(name, entryWithThreshold(0.4)); }
    Dictionary disabled(const std::string& name) const {
        Dictionary entry = entryWithThreshold(1);
        entry.remove("sampling_threshold");
        return profile(name, entry);
    }

    std::shared_ptr<QuorvanedSession> sessionWith(const Dictionary& section) {
        _delegate.storebag = storebagWith(section);
        return startedSession({{"RequireUserInfo", true}},
                              Dictionary{{"ClientName", "Mail"}, {"ServiceName", "Sync"}});
    }
};

TEST_F(ReportingStatesTest, AChildFollowsItsParentExceptWhereItIsSampledOut) {
    const auto parent = sessionWith({{"httppost", reporting("p1")},
                                     {"httppost2", disabled("p2")},
                                     {"dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", 9}}}});
    EXPECT_THAT(parent->fetchReportingStates().value(), ElementsAre("dashboard", "httppost"));
    EXPECT_EQ(parent->samplingThresholdWithBackendName("httppost"), Value(0.6));
    EXPECT_EQ(parent->samplingThresholdWithBackendName("httppost2"), std::nullopt);

    const auto child = sessionWith({{"httppost", disabled("c1")}, {"httppost2", reporting("c2")}});
    const auto sampled = sessionWith({{"httppost", sampledOut("s1")}, {"httppost2", sampledOut("s2")}});
    _delegate.parent = parent.get();
    for (const auto& session : {child, sampled}) session->syncReportingStates();
    EXPECT_THAT(child->fetchReportingStates().value(), ElementsAre("httppost"));
    EXPECT_EQ(child->samplingThresholdWithBackendName("httppost"), Value(0.6)) << "the parent's";
    EXPECT_EQ(child->samplingThresholdWithBackendName("httppost2"), Value(0.6)) << "its own, as it was";

    EXPECT_THAT(sampled->fetchReportingStates().value(), IsEmpty());
    EXPECT_EQ(sampled->samplingThresholdWithBackendName("httppost"), Value(0.4));
    EXPECT_TRUE(send(*sampled, {{"Category", 5}, {"Type", 6}, {"Flag", 2}})) << "can still be promoted";
    EXPECT_EQ(posted("/s1").size(), 2u) << "with the event held until then";
}

TEST_F(ReportingStatesTest, AChildOfAParentWithoutBackendsFallsSilent) {
    const auto child = sessionWith({{"httppost", reporting("c")}});
    _delegate.storebag = nullptr;
    const auto parent = startedSession();
    _delegate.parent = parent.get();
    child->syncReportingStates();
    EXPECT_THAT(child->fetchReportingStates().value(), IsEmpty());
    EXPECT_EQ(send(*child, 5, 6, nullptr), std::nullopt);
}

}  // namespace
}  // namespace quorvane
