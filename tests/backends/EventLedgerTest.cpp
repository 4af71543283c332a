#include "backends/ReasonTexts.h"
#include "backends/SessionLedger.h"
#include "platform/http/HttpSession.h"
#include "tests/backends/BackendFixture.h"

#include <chrono>
#include <limits>

namespace quorvane {
namespace {

class EventLedgerTest : public PostingFixture {
  protected:
    EventLedgerTest() { _server->answerWith({200, {}, {}}); }

    static EventTotals totalsOf(const QuorvaneBackend& backend) {
        EXPECT_TRUE(platform::drainHttpSession(std::chrono::seconds(30)));
        const EventTotals totals = backend.ledger().totals();
        EXPECT_TRUE(totals.balance());
        return totals;
    }

    static std::uint64_t drops(const QuorvaneBackend& backend, DropReason reason) {
        const EventTotals totals = totalsOf(backend);
        EXPECT_EQ(totals.droppedInAll(), totals.dropped[static_cast<std::size_t>(reason)]);
        return totals.dropped[static_cast<std::size_t>(reason)];
    }

    std::shared_ptr<HTTPSPostBackend> postingBackend() {
        return enabledBackend({{"post_url", _server->url("/post")}});
    }
};

TEST_F(EventLedgerTest, ABackendThatDoesNotReportSaysWhichRuleDecided) {
    const auto without = [](std::string_view key) {
        Dictionary entry = permissiveEntry();
        entry.remove(key);
        return entry;
    };
    Dictionary sampled = entryWith("sampling_threshold", 0.1);
    sampled.set("override_sampling", 0.2);
    const struct {
        Dictionary entry;
        double draw;
        ReportingReason reason;
        DropReason drop;
    } cases[] = {
        {entryWith("client", "Other"), 0, ReportingReason::NoMatchingClient, DropReason::NoMatchingClient},
        {entryWith("locale_whitelist", Array{"DE"}), 0, ReportingReason::CountryNotListed,
         DropReason::CountryNotListed},
        {entryWith("device_whitelist", Array{"Other"}), 0, ReportingReason::DeviceNotListed,
         DropReason::DeviceNotListed},
        {without("filters"), 0, ReportingReason::NoFilters, DropReason::NoFilters},
        {without("sampling_threshold"), 0, ReportingReason::NoSamplingThreshold,
         DropReason::NoSamplingThreshold},
        {sampled, 0.9, ReportingReason::AboveThresholds, DropReason::SampledOut},
    };
    for (const auto& [entry, draw, reason, drop] : cases) {
        const auto backend = personalBackend(entry, userInfo(), draw);
        EXPECT_EQ(backend->standing().reason, reason) << textOf(reason);
        send(*backend, {});
        EXPECT_EQ(drops(*backend, drop), 1u) << keyOf(drop);
    }
    write("etc/quorvane/consent.toml", "diagnostics_submission = false\n");
    const auto unconsented = personalBackend(permissiveEntry());
    send(*unconsented, {});
    EXPECT_EQ(drops(*unconsented, DropReason::NoConsent), 1u);
}

TEST_F(EventLedgerTest, WhatIsPostedEndsByItsAnswer) {
    auto backend = postingBackend();
    send(*backend, {});
    EXPECT_EQ(totalsOf(*backend).posted, 1u);
    _server->answerWith({404, {}, {}});
    send(*backend, {});
    EXPECT_EQ(totalsOf(*backend).refused, 1u);
    _server->answerWith({503, {}, {}});
    send(*backend, {});
    EXPECT_EQ(totalsOf(*backend).refused, 2u);
    send(*backend, {});
    EXPECT_EQ(drops(*backend, DropReason::StoppedByServer), 1u);
    EXPECT_THAT(totalsOf(*backend).posts, testing::ElementsAre(0, 0, 1, 0, 1, 1));

    auto unreachable = enabledBackend({{"post_url", "http://127.0.0.1:1/"}});
    send(*unreachable, {});
    EXPECT_EQ(totalsOf(*unreachable).failed, 1u);
    EXPECT_EQ(totalsOf(*unreachable).posts[0], 1u);
}

TEST_F(EventLedgerTest, EveryOtherEndHasItsReason) {
    auto backend = postingBackend();
    send(*backend, {{"n", std::numeric_limits<double>::infinity()}});
    EXPECT_EQ(drops(*backend, DropReason::NotSerialisable), 1u);
    backend = enabledBackend();
    send(*backend, {});
    EXPECT_EQ(drops(*backend, DropReason::NoURL), 1u);

    platform::setHttpLimits({.waitingTime = std::chrono::milliseconds(-1)});
    backend = postingBackend();
    send(*backend, {});
    EXPECT_EQ(drops(*backend, DropReason::ServerTooSlow), 1u);
    platform::setHttpLimits({});

    backend = postingBackend();
    backend->setBatchEvents(true);
    for (int n = 0; n < 51; ++n) send(*backend, {}, 5);
    backend->finishSending();
    EXPECT_EQ(drops(*backend, DropReason::ThresholdRecord), 1u);
    EXPECT_EQ(totalsOf(*backend).posted, 50u);

    // What is held when the backend ends.
    backend = personalBackend(permissiveEntry(), nullptr);
    send(*backend, {});
    EXPECT_EQ(totalsOf(*backend).held, 1u);
    backend->cleanup();
    EXPECT_EQ(drops(*backend, DropReason::SessionEnded), 1u);
    backend = enabledBackend();
    backend->setState(BackendState::SampledOut, ReportingReason::BetweenThresholds);
    send(*backend, {{"text", std::string(17u << 20, 'x')}});
    EXPECT_EQ(drops(*backend, DropReason::NoRoom), 1u);
    send(*backend, {});
    backend->cleanup();
    EXPECT_EQ(totalsOf(*backend).dropped[static_cast<std::size_t>(DropReason::SampledOut)], 1u);

    const auto uploads =
        QuorvaneBackend::newBackendWithName("uploadserver", shared({{"post_url", "x:"}}), {}, 7);
    send(*uploads, {});
    EXPECT_EQ(drops(*uploads, DropReason::TakesNoEvents), 1u);
}

TEST_F(EventLedgerTest, WhatEndedStaysInTheTotalsOfItsSessionAndThatInThoseOfAll) {
    constexpr uid_t user = 4'000'000;
    const std::uint64_t before = SessionLedger::ofAll().events.accepted;
    auto session = std::make_shared<SessionLedger>(user, 1);
    auto backend = enabledBackend();
    backend->ledger().join(session);
    auto other = personalBackend(permissiveEntry(), nullptr);
    other->ledger().join(session);
    send(*backend, {});
    send(*other, {});
    other.reset();
    EXPECT_EQ(session->totals().events.accepted, 2u);
    EXPECT_TRUE(session->totals().events.balance());
    EXPECT_EQ(SessionLedger::ofAll(user).events.accepted, 2u);
    session.reset();
    EXPECT_EQ(SessionLedger::ofAll(user).events.accepted, 2u) << "the backend keeps it";
    backend.reset();
    EXPECT_EQ(SessionLedger::ofAll(user).events.accepted, 0u);
    EXPECT_EQ(SessionLedger::ofAll().events.accepted, before + 2);
}

}  // namespace
}  // namespace quorvane
