#include "platform/http/HttpTransfer.h"

#include "platform/http/TrustedCertificates.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <utility>

namespace quorvane::platform {

namespace {

constexpr std::size_t kMaximumHeaderBytes = 256u << 10;
/// So much of an answer that nobody wants is read, so that the connection can be used again.
constexpr std::size_t kMaximumUnwantedBytes = 64u << 10;
/// Longest idle time of a connection that is used again. Common servers close theirs after five seconds or
/// more; a post that meets the close is lost.
constexpr long kMaximumIdleSeconds = 4;
/// The slowest line that a post's time allows for.
constexpr std::size_t kLowestBytesPerSecond = 16u << 10;
/// OpenSSL looks trusted roots up here one by one, by the hash of their names (openssl-rehash(1ssl)).
constexpr const char* kSystemRoots = "/etc/ssl/certs";
constexpr std::string_view kLineBreakers("\r\n\0", 3);

bool isTokenCharacter(char c) {
    // RFC 9110, section 5.6.2.
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool canStandInHeader(const HttpHeader& header) {
    return isToken(header.name) && header.value.find_first_of(kLineBreakers) == std::string::npos;
}

/// Why the request cannot be sent; empty when it can.
std::string faultOf(const HttpRequest& request) {
    if (request.url.find('\0') != std::string::npos) return "the URL holds a NUL";
    if (!isToken(request.method)) return "the method is malformed";
    for (const HttpHeader& header : request.headers)
        if (!canStandInHeader(header)) return fmt::format("the header {} is malformed", header.name);
    return {};
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// RFC 9110, section 5.5, has a recipient put blanks for these.
std::string withoutBreaks(std::string_view value) {
    std::string result(value);
    const auto breaks = [](char c) { return kLineBreakers.find(c) != std::string_view::npos; };
    std::replace_if(result.begin(), result.end(), breaks, ' ');
    return result;
}

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

std::optional<std::string> HttpResponse::header(std::string_view name) const {
    std::optional<std::string> joined;
    for (const HttpHeader& header : headers)
        if (sameName(header.name, name)) joined = joined ? *joined + ", " + header.value : header.value;
    return joined;
}

Result<std::unique_ptr<HttpTransfer>> HttpTransfer::initWithRequest(
    HttpRequest request, Kind kind, const HttpLimits& limits,
    std::function<void(HttpTransfer&)> phaseChanged) {
    if (std::string fault = faultOf(request); !fault.empty()) return failure(std::move(fault));
    std::unique_ptr<HttpTransfer> transfer(
        new HttpTransfer(std::move(request), kind, limits, std::move(phaseChanged)));
    if (!transfer->setOptions() || !transfer->setBody() || !transfer->setHeaders())
        return failure("the HTTP library refused the request");
    return transfer;
}

HttpTransfer::HttpTransfer(HttpRequest request, Kind kind, const HttpLimits& limits,
                           std::function<void(HttpTransfer&)> phaseChanged)
    : _request(std::move(request)),
      _kind(kind),
      _limits(limits),
      _phaseChanged(std::move(phaseChanged)),
      _easy(curl_easy_init()),
      _phase(_request.body.empty() ? Phase::Sent : Phase::Sending) {}

HttpTransfer::~HttpTransfer() {
    curl_easy_cleanup(_easy);
    curl_slist_free_all(_headerLines);
}

bool HttpTransfer::setOptions() {
    if (_easy == nullptr) return false;
    bool taken = true;
    const auto set = [&](CURLoption option, auto value) {
        taken = curl_easy_setopt(_easy, option, value) == CURLE_OK && taken;
    };
    set(CURLOPT_ERRORBUFFER, _errorText.data());
    set(CURLOPT_NOSIGNAL, 1L);
    // A name server that does not answer holds up the lookup's own thread alone.
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_URL, _request.url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    set(CURLOPT_PIPEWAIT, 1L);
    set(CURLOPT_MAXAGE_CONN, kMaximumIdleSeconds);
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTime().count()));
    set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    set(CURLOPT_CAPATH, kSystemRoots);
    set(CURLOPT_SSL_CTX_FUNCTION, &prepareContext);
    set(CURLOPT_HEADERFUNCTION, &receiveHeader);
    set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    set(CURLOPT_WRITEFUNCTION, &receiveBody);
    set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    if (_kind == Kind::Awaited) {
        set(CURLOPT_XFERINFOFUNCTION, &noteProgress);
        set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
        set(CURLOPT_NOPROGRESS, 0L);
    }
    return taken;
}

bool HttpTransfer::setBody() {
    const bool isGet = _request.method == "GET";
    if (_request.body.empty() && isGet) return true;
    if (_request.method == "HEAD") return curl_easy_setopt(_easy, CURLOPT_NOBODY, 1L) == CURLE_OK;
    bool taken = true;
    const auto set = [&](CURLoption option, auto value) {
        taken = curl_easy_setopt(_easy, option, value) == CURLE_OK && taken;
    };
    set(CURLOPT_POST, 1L);
    set(CURLOPT_CUSTOMREQUEST, _request.method.c_str());
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(_request.body.size()));
    // When a used connection ends without an answer, libcurl sends the request again on another one, unless
    // bytes of the body have left, which it then cannot have again; on a new one it does not.
    set(CURLOPT_READFUNCTION, &giveBody);
    set(CURLOPT_READDATA, static_cast<void*>(this));
    set(CURLOPT_SEEKFUNCTION, &refuseRewind);
    if (_request.body.empty()) set(CURLOPT_FRESH_CONNECT, 1L);
    if (_kind == Kind::Awaited && !_request.body.empty()) {
        // A connection of its own: sharing one over HTTP/2, a large body would hold up the posts.
        set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        set(CURLOPT_FRESH_CONNECT, 1L);
        set(CURLOPT_FORBID_REUSE, 1L);
    }
    return taken;
}

std::chrono::milliseconds HttpTransfer::connectTime() const {
    if (_request.timeout.count() > 0) return _request.timeout;
    return _kind == Kind::Post ? _limits.postTime : _limits.standstill;
}

HttpTransfer::Clock::time_point HttpTransfer::deadline() const {
    if (_phase == Phase::Answered) return _phaseStart + _limits.unwantedBodyTime;
    if (_request.timeout.count() > 0) return _start + _request.timeout;
    if (_kind == Kind::Post)
        return _start + _limits.postTime + std::chrono::seconds(_request.body.size() / kLowestBytesPerSecond);
    return _phase == Phase::Sending ? _lastMove + _limits.standstill : _phaseStart + _limits.answerTime;
}

void HttpTransfer::enter(Phase phase) {
    _phase = phase;
    _phaseStart = Clock::now();
    _phaseChanged(*this);
}

bool HttpTransfer::setHeaders() {
    for (const HttpHeader& header : _request.headers) {
        // libcurl's notation for a header without a value ends in a semicolon.
        const std::string line =
            trimmed(header.value).empty() ? header.name + ";" : header.name + ": " + header.value;
        if (!addHeaderLine(line)) return false;
    }
    // Nothing is said for the caller: no content type that it did not give, no waiting for a 100 (Continue).
    for (const char* name : {"Content-Type", "Expect"})
        if (!hasHeader(name) && !addHeaderLine(std::string(name) + ":")) return false;
    return curl_easy_setopt(_easy, CURLOPT_HTTPHEADER, _headerLines) == CURLE_OK;
}

bool HttpTransfer::addHeaderLine(const std::string& line) {
    curl_slist* longer = curl_slist_append(_headerLines, line.c_str());
    if (longer != nullptr) _headerLines = longer;
    return longer != nullptr;
}

bool HttpTransfer::hasHeader(std::string_view name) const {
    return std::any_of(_request.headers.begin(), _request.headers.end(),
                       [&](const HttpHeader& header) { return sameName(header.name, name); });
}

std::size_t HttpTransfer::giveBody(char* buffer, std::size_t one, std::size_t count,
                                   void* transfer) noexcept {
    auto& self = *static_cast<HttpTransfer*>(transfer);
    const Data& body = self._request.body;
    const std::size_t size = std::min(one * count, body.size() - self._given);
    std::copy_n(body.data() + self._given, size, buffer);
    self._given += size;
    if (self._given == body.size() && self._phase == Phase::Sending) self.enter(Phase::Sent);
    return size;
}

int HttpTransfer::refuseRewind(void*, curl_off_t, int) noexcept {
    return CURL_SEEKFUNC_FAIL;
}

/// Called with one whole header line at a time. The status line of each answer starts the headers anew, since
/// an interim answer may come before the final one.
std::size_t HttpTransfer::receiveHeader(const char* bytes, std::size_t one, std::size_t count,
                                        void* transfer) noexcept {
    auto& self = *static_cast<HttpTransfer*>(transfer);
    const std::size_t size = one * count;
    const std::string_view line(bytes, size);
    self._headerBytes += size;
    if (self._headerBytes > kMaximumHeaderBytes) {
        self._refusal = fmt::format("the answer's headers are larger than {} bytes", kMaximumHeaderBytes);
        return 0;
    }
    const std::size_t colon = line.find(':');
    if (line.starts_with("HTTP/"))
        self._response.headers.clear();
    else if (trimmed(line).empty())
        self.headEnds();
    else if (colon != std::string_view::npos)
        self._response.headers.push_back(
            {std::string(trimmed(line.substr(0, colon))), withoutBreaks(trimmed(line.substr(colon + 1)))});
    return size;
}

/// An answer that comes before the whole body was taken may be followed by a failure to take it.
void HttpTransfer::headEnds() {
    if (_request.wantsBody || _phase != Phase::Sent) return;
    long status = 0;
    curl_easy_getinfo(_easy, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200) enter(Phase::Answered);
}

std::size_t HttpTransfer::receiveBody(const char* bytes, std::size_t one, std::size_t count,
                                      void* transfer) noexcept {
    auto& self = *static_cast<HttpTransfer*>(transfer);
    const std::size_t size = one * count;
    const std::size_t most =
        self._request.wantsBody ? self._request.maximumResponseBytes : kMaximumUnwantedBytes;
    if (size > most - self._bodyBytes) {
        self._refusal = fmt::format("the answer is larger than {} bytes", most);
        return 0;
    }
    self._bodyBytes += size;
    Data& body = self._response.body;
    if (self._request.wantsBody) body.insert(body.end(), bytes, bytes + size);
    return size;
}

int HttpTransfer::noteProgress(void* transfer, curl_off_t, curl_off_t received, curl_off_t,
                               curl_off_t sent) noexcept {
    auto& self = *static_cast<HttpTransfer*>(transfer);
    if (std::exchange(self._moved, received + sent) != self._moved) self._lastMove = Clock::now();
    return 0;
}

CURLcode HttpTransfer::prepareContext(CURL*, void* context, void*) noexcept {
    trustConfiguredCertificates(*static_cast<SSL_CTX*>(context));
    return CURLE_OK;
}

HttpResult HttpTransfer::takeResult(CURLcode code) {
    long status = 0;
    curl_easy_getinfo(_easy, CURLINFO_RESPONSE_CODE, &status);
    _response.statusCode = static_cast<int>(status);
    if (code == CURLE_OK) return {.response = std::move(_response)};
    _response.body = {};
    return {.response = std::move(_response),
            .error = !_refusal.empty() ? std::move(_refusal) : errorText(code)};
}

HttpResult HttpTransfer::takeOverdueResult() {
    const auto taken = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - _start);
    _refusal = fmt::format("The request timed out after {} milliseconds with {} of {} bytes sent",
                           taken.count(), _given, _request.body.size());
    return takeResult(CURLE_OPERATION_TIMEDOUT);
}

std::string HttpTransfer::errorText(CURLcode code) const {
    return _errorText[0] != '\0' ? _errorText.data() : curl_easy_strerror(code);
}

}  // namespace quorvane::platform
