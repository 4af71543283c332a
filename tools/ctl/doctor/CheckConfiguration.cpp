#include "platform/base/FileManager.h"
#include "platform/base/Root.h"
#include "platform/device/Consent.h"
#include "platform/device/DeviceQuery.h"
#include "platform/device/UserDefaults.h"
#include "platform/formats/TomlFile.h"
#include "platform/http/TrustedCertificates.h"
#include "platform/value/Url.h"
#include "tools/common/Nearest.h"
#include "tools/ctl/doctor/Checks.h"
#include "tools/ctl/doctor/ConfigurationFiles.h"
#include "util/Settings.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace quorvane::ctl {

namespace {

using Form = SettingRule::Form;

/// A file that the daemon reads, and the keys that it looks for there.
struct KnownFile {
    std::string path;
    std::vector<SettingRule> rules;
};

std::vector<KnownFile> knownFiles() {
    std::vector<KnownFile> files{
        {platform::rooted(platform::kConsentFile), {{platform::kConsentKey, Form::Boolean}}},
        {platform::rooted(platform::kDeviceFile), {}}};
    for (const std::string_view key : platform::deviceInformationKeys()) files.back().rules.push_back({key});
    for (const std::string_view suite : settingSuites()) {
        const auto rules = settingRules(suite);
        files.push_back({platform::userDefaultsFile(suite), {rules.begin(), rules.end()}});
    }
    return files;
}

bool hasForm(const SettingRule& rule, const Value& value) {
    const std::string* text = value.string();
    switch (rule.form) {
        case Form::Text:
            return text != nullptr;
        case Form::URL:
            return text != nullptr && platform::hasScheme(*text);
        case Form::Word:
            return text != nullptr && std::ranges::find(rule.words, *text) != rule.words.end();
        case Form::Number:
            return value.isInteger() && value.integer() >= rule.first && value.integer() <= rule.last;
        case Form::Boolean:
            return value.kind() == Value::Kind::Boolean;
    }
    return false;
}

std::string nameOfForm(const SettingRule& rule) {
    switch (rule.form) {
        case Form::Text:
            return "a text";
        case Form::URL:
            return "a URL with its scheme, as in \"https://host/path\",";
        case Form::Word:
            return fmt::format("one of \"{}\"", fmt::join(rule.words, "\", \""));
        case Form::Number:
            return rule.last == std::numeric_limits<std::int64_t>::max()
                       ? fmt::format("a whole number from {} on", rule.first)
                       : fmt::format("a whole number from {} to {}", rule.first, rule.last);
        case Form::Boolean:
            return "true or false";
    }
    return {};
}

std::string orListOf(const std::string& word, const std::vector<std::string>& known) {
    const auto meant = tools::nearest(word, known);
    return meant ? fmt::format("did you mean {}?", *meant)
                 : fmt::format("remove it; what is read are {}", fmt::join(known, ", "));
}

std::optional<Finding> faultOf(const platform::TomlEntry& entry, const KnownFile& file) {
    const auto rule = std::ranges::find(file.rules, entry.key, &SettingRule::key);
    if (rule == file.rules.end()) {
        std::vector<std::string> known;
        for (const SettingRule& each : file.rules) known.emplace_back(each.key);
        return warning(file.path, fmt::format("{}: nothing reads this key", entry.key),
                       orListOf(entry.key, known), entry.line);
    }
    if (hasForm(*rule, entry.value)) return std::nullopt;
    return fault(file.path, fmt::format("{}: {} is not taken", entry.key, entry.value.description()),
                 fmt::format("write {} there", nameOfForm(*rule)), entry.line);
}

/// The message of what cannot be read starts with the file's name.
Finding unreadable(const std::string& path, std::string why) {
    if (why.starts_with(path + ": ")) why.erase(0, path.size() + 2);
    return fault(path, "the whole file does not count: " + why, "mend it there");
}

void checkKnownFile(const KnownFile& file, Findings& findings) {
    if (!platform::fileExists(file.path)) return;
    const auto entries = platform::readTomlEntries(file.path);
    if (!entries) return findings.push_back(unreadable(file.path, entries.error().message));
    const std::size_t before = findings.size();
    for (const platform::TomlEntry& entry : *entries)
        if (auto found = faultOf(entry, file)) findings.push_back(*std::move(found));
    if (findings.size() == before)
        findings.push_back(good(file.path, fmt::format("every key is known ({})", entries->size())));
}

void checkOtherFiles(const std::vector<KnownFile>& known, Findings& findings) {
    const std::string trust = platform::rooted(platform::kTrustFolder) + "/";
    std::vector<std::string> paths;
    paths.reserve(known.size());
    for (const KnownFile& file : known) paths.push_back(file.path);
    for (const std::string& path : configurationFiles()) {
        if (std::ranges::find(paths, path) != paths.end()) continue;
        if (!path.starts_with(trust))
            findings.push_back(warning(path, "nothing reads this file", orListOf(path, paths)));
        else if (!path.ends_with(".pem"))
            findings.push_back(warning(path, "it is not trusted: its name does not end in .pem",
                                       "rename it, if it holds certificates in PEM form"));
    }
}

}  // namespace

Findings checkConfiguration() {
    Findings findings;
    const std::vector<KnownFile> known = knownFiles();
    for (const KnownFile& file : known) checkKnownFile(file, findings);
    checkOtherFiles(known, findings);
    if (findings.empty())
        findings.push_back(
            good(platform::rooted(kConfigurationFolder), "no settings: built-in ones are in force"));
    return findings;
}

}  // namespace quorvane::ctl
