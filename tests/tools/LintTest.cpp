#include "tests/support/ChildProcess.h"
#include "tests/tools/SigningFixture.h"
#include "tests/tools/Words.h"

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace quorvane::test {
namespace {

class Lint : public SigningFixture {
  protected:
    /// The warnings about a bag with these client entries, in JSON, without what is the same for all.
    std::vector<std::string> findings(const std::string& clients) const {
        write("bag.json", R"({"version": "1", "release": {"httppost": {"clients": [)" + clients + "]}}}");
        const auto signing = runProgram(
            commandLine(QUORVANE_STOREBAG, "sign bag.json --private-key private.pem --output bag --strict"));
        const std::string prefix = "quorvane-storebag: warning: bag.json: release.httppost.clients";
        std::vector<std::string> found;
        std::istringstream lines(signing.errors);
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with(prefix)) found.push_back(line.substr(prefix.size()));
        EXPECT_EQ(signing.status, found.empty() ? 0 : 1) << signing.errors;
        return found;
    }
};

/// An entry with these keys beside those that it must have.
std::string entry(const std::string& keys = "", const std::string& filters = "") {
    return R"({"locale_whitelist": ["US"], "sampling_threshold": 1, "filters": [)" + filters + "]" +
           (keys.empty() ? "" : ", ") + keys + "}";
}

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST_F(Lint, FindsValuesThatADaemonReadsOtherwise) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"("sampling_threshold": 5)",
         "[0].sampling_threshold: a share of sessions, from 0 to 1, is expected"},
        {R"("override_sampling": -0.5)", "[0].override_sampling: a share"},
        {R"("sampling_threshold": "0.5")",
         "[0].sampling_threshold: a share of sessions, from 0 to 1, is expected; a text counts as none, so "
         "write it as a number"},
        {R"("event_threshold": -1)", "[0].event_threshold: a number from 0 to 2147483647"},
        {R"("event_threshold": 4294967296)", "[0].event_threshold: a number from 0 to 2147483647"},
        {R"("expedite": "1")",
         "[0].expedite: a number without a fraction is expected; a text counts as none"},
        {R"("hierarchy": -2)", "[0].hierarchy: a number from 0"},
        {R"("client": "Mail, Maps")", "[0].client: the blanks around \" Maps\" count"},
        {R"("service": "sync ,push")", "[0].service: the blanks around \"sync \" count"},
        {R"("client": "Mail,")", "[0].client: an empty name stands for nobody"},
        {R"("locale_whitelist": [])", "[0].locale_whitelist: without a country"},
        {R"("locale_whitelist": [" US"])", "[0].locale_whitelist: the blanks around \" US\" count"},
        {R"("locale_whitelist": ["US,CA"])", "[0].locale_whitelist: \"US,CA\" is not split at its commas"},
        {R"("device_whitelist": [""])", "[0].device_whitelist: an empty text is no device"}};
    for (const auto& [keys, finding] : cases) {
        // Of like-named keys the last counts.
        EXPECT_THAT(findings(entry(keys)), ElementsAre(StartsWith(finding))) << keys;
    }
    EXPECT_THAT(findings(""), ElementsAre(StartsWith(": without an entry no session")));
    EXPECT_THAT(findings(entry(R"("sampling_threshold": 0, "override_sampling": 1, "event_threshold": 0,
                                  "client": "Big Mail,Maps", "hierarchy": 0)")),
                IsEmpty());
}

TEST_F(Lint, FindsEntriesThatNeverCount) {
    const std::string everybody = entry(R"("post_url": "https://a.example")");
    const auto named = [](const std::string& client, const std::string& service = "") {
        return entry("\"client\": \"" + client + "\"" +
                     (service.empty() ? "" : ", \"service\": \"" + service + "\""));
    };
    EXPECT_THAT(findings(everybody + "," + named("Mail")),
                ElementsAre("[1]: never counts, since clients[0] comes first for all whom it names; move it "
                            "before that one, or remove it"));
    EXPECT_THAT(findings(named("MAIL,Maps") + "," + named("mail", "sync")),
                ElementsAre(StartsWith("[1]: never")));
    EXPECT_THAT(findings(named("Mail") + "," + named("Maps") + "," + named("Maps,Mail")),
                ElementsAre(StartsWith("[2]: never counts, since clients[0]")))
        << "two before it take all of its sessions together";
    EXPECT_THAT(findings(named("Mail", "sync") + "," + named("Mail", "background sync")),
                ElementsAre(StartsWith("[1]: never")))
        << "the earlier one is for every service with a sync in it";

    for (const std::string& clients :
         {named("Mail") + "," + everybody, named("Mail", "push") + "," + named("Mail", "sync"),
          named("Mail", "background sync") + "," + named("Mail", "sync"),
          named("Mail") + "," + named("Mail,Maps"), named("Mail", "sync") + "," + named("Mail")})
        EXPECT_THAT(findings(clients), IsEmpty()) << clients;
    EXPECT_THAT(findings(entry() + "," + everybody), IsEmpty())
        << "sessions that require no user information report to the first URL";
}

TEST_F(Lint, FindsFiltersThatNeverAct) {
    const auto filter = [](const std::string& key, const std::string& more = "") {
        return R"({"action": "remove", "key": ")" + key + "\"" + more + "}";
    };
    const auto both = [](const std::string& first, const std::string& second) {
        return entry("", first + "," + second);
    };
    EXPECT_THAT(
        findings(both(filter("a"), filter("A", R"(, "method": 5)"))),
        ElementsAre("[0].filters[1]: never acts, since filters[0] comes first for the key \"A\"; remove "
                    "one of the two"));
    EXPECT_THAT(findings(both(filter("a", R"(, "method": 5)"), filter("a", R"(, "method": 5, "status": 1)"))),
                ElementsAre(StartsWith("[0].filters[1]: never acts")));
    EXPECT_THAT(findings(both(filter("a", R"(, "method": 5)"), filter("a"))), IsEmpty());
    EXPECT_THAT(findings(both(filter("a"), filter("b"))), IsEmpty());
    EXPECT_THAT(
        findings(entry("", filter("a", R"(, "status": 70000)"))),
        ElementsAre(StartsWith("[0].filters[0].status: a number from 0 to 65535, or -1 for all, is")));
}

}  // namespace
}  // namespace quorvane::test
