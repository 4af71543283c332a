#include "platform/formats/TomlFile.h"

#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/formats/TomlNesting.h"
#include "platform/formats/ValueLimits.h"
#include "platform/value/Bytes.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <type_traits>

#include <fmt/format.h>

namespace quorvane::platform {

namespace {

constexpr std::size_t kLargestFile = 4u << 20;

std::chrono::sys_days midnight(const toml::date& date) {
    return std::chrono::year(date.year) / date.month / date.day;
}

std::chrono::microseconds sinceMidnight(const toml::time& time) {
    return std::chrono::hours(time.hour) + std::chrono::minutes(time.minute) +
           std::chrono::seconds(time.second) + std::chrono::microseconds(time.nanosecond / 1'000);
}

Date instant(const toml::date& date, const toml::time& time, int offsetMinutes) {
    const auto at = midnight(date) + sinceMidnight(time) - std::chrono::minutes(offsetMinutes);
    return Date{std::chrono::duration_cast<std::chrono::microseconds>(at.time_since_epoch()).count()};
}

std::string timeText(const toml::time& time) {
    std::string text = fmt::format("{:02}:{:02}:{:02}", time.hour, time.minute, time.second);
    if (time.nanosecond == 0) return text;
    text += fmt::format(".{:09}", time.nanosecond);
    return text.substr(0, text.find_last_not_of('0') + 1);
}

Dictionary dictionaryFrom(const toml::table& table);
Array arrayFrom(const toml::array& array);

Value valueFrom(const toml::node& node) {
    return node.visit([](const auto& typed) -> Value {
        using Node = std::decay_t<decltype(typed)>;
        if constexpr (toml::is_table<Node>)
            return dictionaryFrom(typed);
        else if constexpr (toml::is_array<Node>)
            return arrayFrom(typed);
        else if constexpr (toml::is_date<Node>)
            return instant(typed.get(), {}, 0);
        else if constexpr (toml::is_time<Node>)
            return timeText(typed.get());
        else if constexpr (toml::is_date_time<Node>)
            return instant(typed.get().date, typed.get().time,
                           typed.get().offset ? typed.get().offset->minutes : 0);
        else
            return typed.get();
    });
}

Dictionary dictionaryFrom(const toml::table& table) {
    Dictionary values;
    values.reserve(table.size());
    for (const auto& [key, node] : table) values.setOwned(std::string(key.str()), valueFrom(node));
    return values;
}

Array arrayFrom(const toml::array& array) {
    Array values;
    values.reserve(array.size());
    for (const toml::node& node : array) values.push_back(valueFrom(node));
    return values;
}

/// "server.port: " when the line, counted from 1, sets a key; else nothing.
std::string keyOnLine(std::string_view text, std::size_t line) {
    for (; line > 1 && !text.empty(); --line)
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
    text = text.substr(0, text.find('\n'));
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) return {};
    std::string_view key = text.substr(0, equals);
    key.remove_prefix(std::min(key.find_first_not_of(" \t"), key.size()));
    key = key.substr(0, key.find_last_not_of(" \t") + 1);
    return key.empty() || key.size() > 128 ? std::string() : std::string(key) + ": ";
}

Result<toml::table> parseTable(std::string_view text, std::string_view name) {
    const auto faultOnLine = [&](std::size_t line, std::string_view fault) {
        return failure(fmt::format("{}: line {}: {}{}", name, line, keyOnLine(text, line), fault));
    };
    if (const auto line = lineNestedTooDeep(text)) return faultOnLine(*line, kTooDeep);
    try {
        return toml::parse(text);
    } catch (const toml::parse_error& error) {
        return faultOnLine(error.source().begin.line, error.description());
    } catch (const std::exception& error) {
        return failure(fmt::format("{}: {}", name, error.what()));
    }
}

Result<toml::table> readTable(const std::string& file) {
    errno = 0;
    const std::optional<Data> bytes = readFile(file, kLargestFile);
    if (!bytes) return failure(fmt::format("{}: {}", file, std::strerror(errno != 0 ? errno : EFBIG)));
    return parseTable(textOf(*bytes), file);
}

Result<Dictionary> valuesOf(const Result<toml::table>& table) {
    if (!table) return tl::unexpected(table.error());
    return dictionaryFrom(*table);
}

}  // namespace

Result<Dictionary> parseToml(std::string_view text, std::string_view name) {
    return valuesOf(parseTable(text, name));
}

Result<Dictionary> readTomlFile(const std::string& file) {
    return valuesOf(readTable(file));
}

Result<std::vector<TomlEntry>> readTomlEntries(const std::string& file) {
    const auto table = readTable(file);
    if (!table) return tl::unexpected(table.error());
    std::vector<TomlEntry> entries;
    for (const auto& [key, node] : *table)
        entries.push_back({std::string(key.str()), key.source().begin.line, valueFrom(node)});
    std::ranges::stable_sort(entries, {}, &TomlEntry::line);
    return entries;
}

Dictionary readConfiguration(const std::string& file) {
    if (!fileExists(file)) return {};
    Result<Dictionary> configuration = readTomlFile(file);
    if (configuration) return *std::move(configuration);
    logError("readConfiguration: {}", configuration.error().message);
    return {};
}

std::optional<std::string> textUnder(std::string_view key, const Dictionary& configuration,
                                     std::string_view file) {
    const Value* value = configuration.find(key);
    if (value == nullptr) return std::nullopt;
    if (const std::string* text = value->string()) return *text;
    logError("readConfiguration: {}: {}: a text is expected", file, key);
    return std::nullopt;
}

}  // namespace quorvane::platform
