#include "backends/QuorvaneBackend.h"

#include "platform/crypto/Crypto.h"
#include "platform/crypto/RandomDraw.h"
#include "platform/value/Bytes.h"
#include "platform/value/Text.h"
#include "util/Conversions.h"

#include <charconv>
#include <limits>
#include <span>
#include <system_error>

#include <fmt/format.h>

namespace quorvane {

using platform::MutexLock;

namespace {

/// The leading integer of the text; 0 when there is none.
int leadingInteger(std::string_view text) {
    int number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc::result_out_of_range ? std::numeric_limits<int>::max() : number;
}

}  // namespace

QuorvaneBackend::QuorvaneBackend(std::string name, std::shared_ptr<const Dictionary> profile,
                                 OptionalString productFamily)
    : _profile(std::move(profile)),
      _name(std::move(name)),
      _productFamily(std::move(productFamily)),
      _samplingFactor(platform::randomDraw()) {}

std::string QuorvaneBackend::convertIntoSHA256(std::string_view text) {
    // Deliberately fewer bytes than the text has when it is not ASCII; receivers compare with digests made
    // so.
    const std::string_view hashed = text.substr(0, platform::utf16Length(text));
    return platform::hexOf(platform::sha256(platform::bytesOf(hashed)));
}

QuorvaneBackend::Answer QuorvaneBackend::sendMessage(const Dictionary* message, TimeValue timestamp,
                                                     std::uint16_t method, std::uint16_t respCode,
                                                     MessageFlag flag) {
    _ledger.accept(method, respCode);
    ++_eventID;
    return sendMessage(message, timestamp, method, respCode, EventID{_eventID}, flag);
}

QuorvaneBackend::Answer QuorvaneBackend::sendMessage(const Dictionary*, TimeValue, std::uint16_t,
                                                     std::uint16_t, EventID, MessageFlag) {
    _ledger.drop(DropReason::TakesNoEvents);
    return std::nullopt;
}

bool QuorvaneBackend::uploadFileAtPath(const std::string&, const char*) {
    return false;
}

bool QuorvaneBackend::uploadLogData(const Array&) {
    return false;
}

void QuorvaneBackend::setCorrelatedSessionID(const std::string& combinedSessionID) {
    setCombinedSessionIDString(combinedSessionID);
}

void QuorvaneBackend::finishSending() {
    while (continueSending()) continue;
}

QuorvaneBackend::ShortVersion QuorvaneBackend::shortVersionOf(std::string_view version) {
    const auto point = version.find('.');
    const auto rest = point == std::string_view::npos ? std::string_view() : version.substr(point + 1);
    const auto major = static_cast<std::uint8_t>(leadingInteger(version));
    return {major, fmt::format("{}.{}", major, static_cast<std::uint8_t>(leadingInteger(rest)))};
}

void QuorvaneBackend::setSelfVersion(std::string_view version) {
    ShortVersion shortened = shortVersionOf(version);
    _selfVersionMajor = shortened.major;
    _selfVersion = std::move(shortened.text);
    changed();
}

void QuorvaneBackend::setStartTimestamp(TimeValue time) {
    change(_startTimeStamp, secondsFromTimeValue(time));
}

QuorvaneBackend::OptionalString QuorvaneBackend::combinedSessionIDString() const {
    const MutexLock lock(_lock);
    return _combinedSessionIDString;
}

void QuorvaneBackend::setCombinedSessionIDString(OptionalString combinedSessionID) {
    const MutexLock lock(_lock);
    change(_combinedSessionIDString, std::move(combinedSessionID));
}

std::optional<Value> QuorvaneBackend::samplingThreshold() const {
    const MutexLock lock(_lock);
    return _samplingThreshold;
}

void QuorvaneBackend::setSamplingThreshold(std::optional<Value> samplingThreshold) {
    const MutexLock lock(_lock);
    _samplingThreshold = std::move(samplingThreshold);
}

void QuorvaneBackend::replaceState(BackendState expected, Standing standing) {
    Standing current = _standing;
    while (current.state == expected && !_standing.compare_exchange_weak(current, standing)) {
    }
}

}  // namespace quorvane
