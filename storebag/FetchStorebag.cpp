#include "storebag/FetchStorebag.h"

#include "framework/QuorvaneBundle.h"
#include "platform/base/FreedMemory.h"
#include "platform/base/Log.h"
#include "platform/base/Result.h"
#include "platform/base/SettledOnce.h"
#include "platform/crypto/Crypto.h"
#include "platform/http/HttpSession.h"
#include "platform/value/Url.h"
#include "storebag/SignedBag.h"
#include "util/DeviceFacts.h"
#include "util/Settings.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <limits>
#include <memory>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace quorvane {

using platform::logDebug;
using platform::logError;
using platform::logInfo;

namespace {

constexpr const char* kStorebagServer = "https://" QUORVANE_STOREBAG_HOST "/bags/tamsel";
constexpr const char* kInternalStorebagServer =
    "https://" QUORVANE_INTERNAL_STOREBAG_HOST "/storebags/tamsel";

constexpr std::chrono::seconds kTimeout{15};
constexpr std::int32_t kDefaultMaxAge = 86400;
/// An answer of so many bytes makes values of many times that, most of which are dropped again.
constexpr std::size_t kLargeAnswer = 256u << 10;

const std::string& baseURL() {
    static platform::SettledOnce<std::string> url([] {
        return textSetting(Setting::StorebagURL)
            .value_or(isInternalBuild() ? kInternalStorebagServer : kStorebagServer);
    });
    return url.value();
}

std::string storebagURL(const std::optional<std::string>& name) {
    const std::string version = bundleVersion().value_or(kDefaultBundleVersion);
    return platform::percentEncodedBlanks(
        fmt::format("{}/{}?version={}", baseURL(), platform::orNull(name), version));
}

platform::HttpRequest conditionalRequest(const std::string& url,
                                         const std::optional<std::string>* lastModified) {
    platform::HttpRequest request;
    request.url = url;
    request.timeout = kTimeout;
    if (lastModified != nullptr && lastModified->has_value()) {
        logDebug("fetchStorebagWithName: Adding 'Last-Modified: {}' to the header", **lastModified);
        request.headers.push_back({"If-Modified-Since", **lastModified});
    }
    return request;
}

/// What its clients run with while their server cannot be reached.
Dictionary defaultStorebag() {
    const Dictionary section{{"ossel", Dictionary{{"active", true}}}};
    return {{"velmora_internal", section},
            {"development", section},
            {"release", section},
            {"version", "1.0.0-Confluxa-Fallback"},
            {"refresh_cycle", 3600}};
}

std::optional<Dictionary> unreachable(const std::optional<std::string>& name, const std::string& error,
                                      FetchAttempt& attempt) {
    attempt.reason = error;
    logInfo("fetchStorebagWithName: Error resolving with lookup server {}, sendSynchronousRequest error {}",
            attempt.url, error);
    if (name != "confluxa") return std::nullopt;
    attempt.outcome = FetchAttempt::Outcome::BuiltIn;
    logInfo("fetchStorebagWithName: Loading default storebag '{}'", *name);
    return defaultStorebag();
}

/// The number that the text begins with; 0 when it begins with none, the largest when it is larger.
std::int32_t leadingNumber(std::string_view text) {
    constexpr std::uint32_t largest = std::numeric_limits<std::int32_t>::max();
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::result_out_of_range) number = largest;
    return static_cast<std::int32_t>(std::min(number, largest));
}

/// The number in the piece after "max-age", where every "=" and every blank ends a piece.
std::int32_t maxAgeFromCacheControl(const std::optional<std::string>& cacheControl) {
    if (!cacheControl) return kDefaultMaxAge;
    std::string_view rest = *cacheControl;
    bool isMaxAge = false;
    for (;;) {
        const std::size_t end = rest.find_first_of("= ");
        const std::string_view piece = rest.substr(0, end);
        if (isMaxAge) return leadingNumber(piece);
        if (end == std::string_view::npos) return kDefaultMaxAge;
        isMaxAge = piece == "max-age";
        rest.remove_prefix(end + 1);
    }
}

/// Whether the answer says that the caller's bag still holds; if not, the caller gets the new
/// "Last-Modified".
bool isUnchanged(const platform::HttpResponse& response, std::optional<std::string>& lastModified) {
    const std::optional<std::string> received = response.header("Last-Modified");
    if (!received) return false;
    if (response.body.empty() && lastModified) {
        logDebug("fetchStorebagWithName: storebag content has not changed. using its cached version");
        return true;
    }
    lastModified = received;
    logDebug("fetchStorebagWithName: New 'Last-Modified: {}' received", *received);
    return false;
}

void logNotOpened(const SignedBagError& error) {
    using Fault = SignedBagError::Fault;
    if (error.fault == Fault::NoPropertyList)
        logError("fetchStorebagWithName: propertyListWithData error {}", error.message);
    if (error.fault != Fault::Undecodable) logError("fetchStorebagWithName: Signature is missing");
}

/// Nothing once one of the keys verifies the bag. A key that is damaged does not keep the next from it.
std::optional<std::string> verificationFailure(const SignedBag& bag) {
    std::unique_ptr<platform::RsaPublicKey> tried;
    std::string why;
    for (const PublicKeyResource& resource : publicKeyResources()) {
        auto key = storebagPublicKey(resource.der);
        if (!key) {
            if (why.empty()) why = key.error().message;
            continue;
        }
        if (bag.isSignedWith(**key)) return std::nullopt;
        if (tried == nullptr) tried = *std::move(key);
    }
    if (tried == nullptr) return why;
    logError("fetchStorebagWithName: Signature can not be verified, {}", fmt::ptr(tried.get()));
    return "the signature was not made with the key that belongs to the public one";
}

platform::Result<Dictionary> verifiedBag(std::span<const std::uint8_t> body) {
    const auto opened = SignedBag::open(body);
    if (!opened) {
        logNotOpened(opened.error());
        return platform::failure(opened.error().message);
    }
    if (auto unverified = verificationFailure(*opened)) return platform::failure(*std::move(unverified));
    return opened->bag();
}

/// Why what came with that answer is no bag. A status never decides that, and often explains it.
std::string explained(const platform::HttpResponse& response, const std::string& fault) {
    const int status = response.statusCode;
    if (status >= 300 && status <= 399)
        return fmt::format("the server redirects to {}, which is not followed",
                           platform::orNull(response.header("Location")));
    return status >= 400 ? fmt::format("the server answers {}: {}", status, fault) : fault;
}

}  // namespace

platform::Result<std::unique_ptr<platform::RsaPublicKey>> storebagPublicKey(const std::optional<Data>& der) {
    if (!der) return platform::failure("the public key that bags are signed for is missing");
    auto key = platform::RsaPublicKey::initWithDER(*der);
    if (key == nullptr)
        return platform::failure("the public key that bags are signed for is no RSA key in DER");
    return key;
}

std::optional<Dictionary> fetchStorebagWithName(const std::optional<std::string>& name, std::int32_t& maxAge,
                                                bool& notModified, std::optional<std::string>* lastModified,
                                                FetchAttempt* attempt) {
    FetchAttempt untold;
    FetchAttempt& told = attempt != nullptr ? *attempt : untold;
    const std::string url = told.url = storebagURL(name);
    logDebug("fetchStorebagWithName: Storebag Server URL: {}", url);
    if (!platform::hasScheme(url)) {
        logError(
            "fetchStorebagWithName: 'quorvane_storebag_url' holds no URL with a scheme, nothing is fetched");
        return unreachable(name, "the URL has no scheme", told);
    }

    const platform::HttpResult result = platform::performDataTask(conditionalRequest(url, lastModified));
    told.httpStatus = result.response.statusCode;
    told.serverTime = result.response.header("Date");
    if (result.error) return unreachable(name, *result.error, told);

    // The status counts for nothing: a server's answer is judged by its headers and its signed body alone.
    maxAge = maxAgeFromCacheControl(result.response.header("Cache-Control"));
    if (lastModified != nullptr && isUnchanged(result.response, *lastModified)) {
        notModified = true;
        told.outcome = FetchAttempt::Outcome::Unchanged;
        return std::nullopt;
    }
    auto bag = verifiedBag(result.response.body);
    if (result.response.body.size() >= kLargeAnswer) platform::memoryIsFreed();
    if (!bag) {
        told.reason = explained(result.response, bag.error().message);
        return std::nullopt;
    }
    told.outcome = FetchAttempt::Outcome::Received;
    return *std::move(bag);
}

}  // namespace quorvane
