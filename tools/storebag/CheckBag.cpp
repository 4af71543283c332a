#include "tools/storebag/CheckBag.h"

#include "framework/Keys.h"
#include "tools/common/Nearest.h"
#include "tools/storebag/KeyRules.h"
#include "tools/storebag/LintClients.h"
#include "util/Environment.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace quorvane::tools {

namespace {

constexpr std::array kHttpPost{KeyRule{"clients", Form::Entries, true}, KeyRule{"display_url", Form::Url}};
constexpr std::array kClient{
    KeyRule{"client", Form::Text},
    KeyRule{"device_whitelist", Form::Texts},
    KeyRule{"event_threshold", Form::Count},
    KeyRule{"expedite", Form::Integer},
    KeyRule{"extras_on_internal", Form::Integer},
    KeyRule{"filters", Form::Entries},
    KeyRule{"hierarchy", Form::Count},
    KeyRule{"locale_whitelist", Form::Texts},
    KeyRule{"override_dnu", Form::Integer},
    KeyRule{"override_sampling", Form::Share},
    KeyRule{"post_url", Form::Url},
    KeyRule{"realtime_post_url", Form::Url},
    KeyRule{"sampling_threshold", Form::Share},
    KeyRule{"service", Form::Text},
};
constexpr std::array kFilter{KeyRule{"action", Form::FilterAction}, KeyRule{"key", Form::Text, true},
                             KeyRule{"method", Form::EventNumber}, KeyRule{"status", Form::EventNumber}};
constexpr std::array kDashboard{KeyRule{"display_url", Form::Url}, KeyRule{"ip", Form::Address, true},
                                KeyRule{"port", Form::Port, true}, KeyRule{"post_url", Form::Url},
                                KeyRule{"reliable", Form::Count}};
constexpr std::array kUploadServer{KeyRule{"display_url", Form::Url}, KeyRule{"post_url", Form::Url, true}};

constexpr std::uint64_t kLongestRefreshCycle = 86400;

const KeyRule* ruleOf(std::string_view key, std::span<const KeyRule> rules) {
    const auto rule =
        std::find_if(rules.begin(), rules.end(), [&](const KeyRule& r) { return r.key == key; });
    return rule != rules.end() ? &*rule : nullptr;
}

std::string suggestion(std::string_view key, std::span<const KeyRule> rules) {
    std::vector<std::string> known;
    for (const KeyRule& rule : rules) known.emplace_back(rule.key);
    const auto meant = nearest(key, known);
    return meant ? fmt::format("; did you mean \"{}\"?", *meant) : "";
}

/// What is said beside that another form is expected.
std::string_view adviceOn(const Value& value, Form form) {
    return isNumberAsText(value, form) ? "; a text counts as none, so write it as a number" : "";
}

class Check {
  public:
    std::vector<std::string> bag(const Dictionary& bag) {
        topLevel(bag);
        for (const std::string_view environment : kStorebagSections)
            if (const Value* section = bag.find(environment)) this->section(*section, environment);
        return std::move(_findings);
    }

  private:
    template <typename... Arguments>
    void find(std::string_view path, fmt::format_string<Arguments...> text, Arguments&&... arguments) {
        _findings.push_back(
            fmt::format("{}: {}", path, fmt::format(text, std::forward<Arguments>(arguments)...)));
    }

    void topLevel(const Dictionary& bag) {
        if (bag.string("version") == nullptr)
            find("version", "a text is expected; without it the bag is not taken");
        if (const Value* cycle = bag.find("refresh_cycle")) refreshCycle(*cycle);
        bool anySection = false;
        for (const auto& [key, value] : bag) {
            const bool isSection =
                std::find(kStorebagSections.begin(), kStorebagSections.end(), key) != kStorebagSections.end();
            anySection = anySection || isSection;
            if (!isSection && key != "version" && key != "refresh_cycle")
                find(key, "no environment; these are {}", fmt::join(kStorebagSections, ", "));
        }
        if (!anySection) _findings.emplace_back("no environment has a section");
    }

    void refreshCycle(const Value& cycle) {
        if (!cycle.isInteger() || cycle.real() < 0)
            find("refresh_cycle", "a number of seconds without a fraction is expected{}",
                 adviceOn(cycle, Form::Count));
        else if (cycle.unsignedInteger() > kLongestRefreshCycle)
            find("refresh_cycle", "a daemon asks again after {} seconds already", kLongestRefreshCycle);
    }

    void section(const Value& value, std::string_view path) {
        const Dictionary* section = value.dictionary();
        if (section == nullptr) return find(path, "a dictionary of backends is expected");
        for (const auto& [name, profile] : *section) backend(name, profile, fmt::format("{}.{}", path, name));
    }

    void backend(std::string_view name, const Value& value, const std::string& path) {
        const Dictionary* profile = value.dictionary();
        if (profile == nullptr) return find(path, "a dictionary is expected");
        if (name == kQuorvaneBackendHTTPPost || name == kQuorvaneBackendHTTPPost2) {
            keys(*profile, kHttpPost, path);
            entries(*profile, "clients", path, &Check::client);
            if (const Array* clients = profile->array("clients"))
                lintClients(*clients, path + ".clients", _findings);
        } else if (name == kQuorvaneBackendDashboard) {
            keys(*profile, kDashboard, path);
        } else if (name == kQuorvaneBackendUploadServer) {
            keys(*profile, kUploadServer, path);
        } else if (name != kQuorvaneBackendJoulary && name != kQuorvaneBackendOssel) {
            find(path, "no such backend");
        }
    }

    void client(const Dictionary& client, const std::string& path) {
        keys(client, kClient, path);
        for (const std::string_view key : {"filters", "locale_whitelist", "sampling_threshold"})
            if (!client.contains(key))
                find(path, "without \"{}\" no session that requires user information reports", key);
        entries(client, "filters", path, &Check::filter);
    }

    void filter(const Dictionary& filter, const std::string& path) { keys(filter, kFilter, path); }

    void entries(const Dictionary& holder, std::string_view key, const std::string& path,
                 void (Check::*each)(const Dictionary&, const std::string&)) {
        const Array* array = holder.array(key);
        if (array == nullptr) return;
        for (std::size_t index = 0; index < array->size(); ++index)
            if (const Dictionary* entry = (*array)[index].dictionary())
                (this->*each)(*entry, fmt::format("{}.{}[{}]", path, key, index));
    }

    void keys(const Dictionary& holder, std::span<const KeyRule> rules, const std::string& path) {
        for (const auto& [key, value] : holder) {
            const KeyRule* rule = ruleOf(key, rules);
            if (rule == nullptr)
                find(path, "no key of the name \"{}\" is read{}", key, suggestion(key, rules));
            else if (!hasForm(value, rule->form))
                find(fmt::format("{}.{}", path, key), "{} is expected{}", nameOf(rule->form),
                     adviceOn(value, rule->form));
        }
        for (const KeyRule& rule : rules)
            if (rule.required && !holder.contains(rule.key)) find(path, "\"{}\" is missing", rule.key);
    }

    std::vector<std::string> _findings;
};

}  // namespace

std::vector<std::string> checkBag(const Dictionary& bag) {
    return Check().bag(bag);
}

}  // namespace quorvane::tools
