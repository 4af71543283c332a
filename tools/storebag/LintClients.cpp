#include "tools/storebag/LintClients.h"

#include "backends/EventFilters.h"
#include "backends/PostTargets.h"
#include "backends/ReportingRules.h"
#include "framework/Keys.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isBlankAround(std::string_view text) {
    return !text.empty() && (isBlank(text.front()) || isBlank(text.back()));
}

/// Sessions that an entry is for: one for each pair of its names. An entry that names none is for sessions
/// without a name, too, which only such an entry matches: whatever takes those takes all.
std::vector<Dictionary> sessionsOf(const Dictionary& entry) {
    const auto namesOf = [&](std::string_view key) {
        const Array names = commaSeparated(entry.string(key));
        std::vector<std::optional<Value>> named(names.begin(), names.end());
        if (named.empty()) named.emplace_back();
        return named;
    };
    std::vector<Dictionary> sessions;
    for (const auto& client : namesOf("client"))
        for (const auto& service : namesOf("service")) {
            Dictionary& userInfo = sessions.emplace_back();
            if (client) userInfo.set(kQuorvaneUserInfoClientName, *client);
            if (service) userInfo.set(kQuorvaneUserInfoServiceName, *service);
        }
    return sessions;
}

/// An entry that takes sessions of this one, if such entries take all of them; null where this one counts.
const Dictionary* hiddenBehind(const Array& clients, const Dictionary& entry) {
    const Dictionary* earlier = nullptr;
    for (const Dictionary& userInfo : sessionsOf(entry)) {
        const auto decision = decideReporting(&clients, {.userInfo = &userInfo, .requireUserInfo = true});
        if (decision.entry == &entry) return nullptr;
        if (decision.entry != nullptr) earlier = decision.entry;
    }
    return earlier;
}

std::size_t indexOf(const Array& clients, const Dictionary* entry) {
    const auto found = std::find_if(clients.begin(), clients.end(),
                                    [&](const Value& client) { return client.dictionary() == entry; });
    return static_cast<std::size_t>(std::distance(clients.begin(), found));
}

class Lint {
  public:
    explicit Lint(std::vector<std::string>& findings) : _findings(findings) {}

    void clients(const Array& clients, const std::string& path) {
        if (clients.empty())
            find(path, "without an entry no session that requires user information reports; add one");
        // Sessions that require no user information report to that entry, whomever it names.
        const Dictionary* const withoutRules = PostTargets({}, {}).updateFromFirst(clients);
        for (std::size_t index = 0; index < clients.size(); ++index) {
            const Dictionary* entry = clients[index].dictionary();
            if (entry == nullptr) continue;
            const std::string place = fmt::format("{}[{}]", path, index);
            const Dictionary* earlier = entry != withoutRules ? hiddenBehind(clients, *entry) : nullptr;
            if (earlier != nullptr)
                find(place,
                     "never counts, since clients[{}] comes first for all whom it names; "
                     "move it before that one, or remove it",
                     indexOf(clients, earlier));
            this->entry(*entry, place);
        }
    }

  private:
    template <typename... Arguments>
    void find(std::string_view path, fmt::format_string<Arguments...> text, Arguments&&... arguments) {
        _findings.push_back(
            fmt::format("{}: {}", path, fmt::format(text, std::forward<Arguments>(arguments)...)));
    }

    void entry(const Dictionary& entry, const std::string& path) {
        for (const char* key : {"client", "service"}) names(entry, key, path);
        if (const Array* countries = entry.array("locale_whitelist"))
            this->countries(*countries, path + ".locale_whitelist");
        if (const Array* devices = entry.array("device_whitelist"))
            this->devices(*devices, path + ".device_whitelist");
        if (const Array* filters = entry.array("filters")) this->filters(*filters, path + ".filters");
    }

    void names(const Dictionary& entry, const char* key, const std::string& path) {
        for (const Value& part : commaSeparated(entry.string(key))) {
            const std::string& name = *part.string();
            if (name.empty())
                find(fmt::format("{}.{}", path, key),
                     "an empty name stands for nobody; leave it out, or the whole key to mean everybody");
            else if (isBlankAround(name))
                find(fmt::format("{}.{}", path, key),
                     "the blanks around \"{}\" count as a part of the name; leave them out", name);
        }
    }

    void countries(const Array& countries, const std::string& path) {
        if (countries.empty())
            find(path,
                 "without a country in it no session that requires user information reports; name some");
        for (const Value& country : countries) {
            const std::string* text = country.string();
            if (text == nullptr) continue;
            if (text->empty())
                find(path, "an empty text is no country; leave it out");
            else if (text->find(',') != std::string::npos)
                find(path, "\"{}\" is not split at its commas; write each country as a text of its own",
                     *text);
            else if (isBlankAround(*text))
                find(path,
                     "the blanks around \"{}\" count as a part of it, and no country has them; leave "
                     "them out",
                     *text);
        }
    }

    void devices(const Array& devices, const std::string& path) {
        for (const Value& device : devices)
            if (device.string() != nullptr && device.string()->empty())
                find(path, "an empty text is no device; leave it out, or the whole key to mean all");
    }

    void filters(const Array& filters, const std::string& path) {
        for (auto later = filters.begin(); later != filters.end(); ++later) {
            const auto earlier = std::find_if(filters.begin(), later, [&](const Value& filter) {
                return EventFilters::hides(filter, *later);
            });
            if (earlier == later) continue;
            find(fmt::format("{}[{}]", path, std::distance(filters.begin(), later)),
                 "never acts, since filters[{}] comes first for the key \"{}\"; remove one of the two",
                 std::distance(filters.begin(), earlier), *later->dictionary()->string("key"));
        }
    }

    std::vector<std::string>& _findings;
};

}  // namespace

void lintClients(const Array& clients, const std::string& path, std::vector<std::string>& findings) {
    Lint(findings).clients(clients, path);
}

}  // namespace quorvane::tools
