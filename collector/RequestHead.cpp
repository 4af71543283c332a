#include "collector/RequestHead.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace quorvane::collector {

using httplib::Request;

namespace {

/// Stands for "Content-Encoding" inside the server.
constexpr const char* kEncodingHeader = "COLLECTOR-ENCODING";

constexpr std::array<std::string_view, 3> kBagPaths{"/bags/tamsel/", "/storebags/tamsel/", "/bags/"};
/// "application/json; charset=utf-8" without what follows the semicolon, in lower case.
std::string mediaType(const Request& request) {
    std::string type = request.get_header_value("Content-Type");
    type.resize(std::min(type.find(';'), type.size()));
    while (!type.empty() && type.back() == ' ') type.pop_back();
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return type;
}

/// A body's framing is told once and clearly, or the next request would be looked for in the wrong place.
std::optional<Response> framingRefusal(const Request& request, std::uint64_t limit) {
    const bool chunked = request.has_header("Transfer-Encoding");
    if (!chunked && !request.has_header("Content-Length")) return refusal(411, "no length of the body");
    if (chunked &&
        (request.has_header("Content-Length") || request.get_header_value("Transfer-Encoding") != "chunked" ||
         request.get_header_value_count("Transfer-Encoding") != 1))
        return refusal(400, "no single length of the body");
    if (chunked) return std::nullopt;
    const auto length = contentLength(request);
    if (!length) return refusal(400, "the length of the body is no number");
    if (*length > limit) return refusal(413, "the body is too large");
    return std::nullopt;
}

std::optional<Response> encodingRefusal(const Request& request) {
    const std::string encoding = request.get_header_value(kEncodingHeader);
    if (encoding.empty() || encoding == "gzip" || encoding == "identity") return std::nullopt;
    return refusal(415, "the body is neither plain nor gzip");
}

/// What of an upload's query cannot be missing.
std::optional<Response> queryRefusal(const Request& request) {
    const std::string sequence = request.get_param_value("sequence");
    if (request.get_param_value("uuid").empty() || request.get_param_value("filename").empty())
        return refusal(400, "no 'uuid' or no 'filename'");
    if (sequence.empty() || sequence.find_first_not_of("0123456789") != std::string::npos)
        return refusal(400, "'sequence' is no number");
    return std::nullopt;
}

/// The library would look for parts in it.
std::optional<Response> multipartRefusal(const Request& request) {
    if (!mediaType(request).starts_with("multipart/")) return std::nullopt;
    return refusal(415, "the body has several parts");
}

std::optional<Response> bagRefusal(const Request& request) {
    if (request.method != "GET" && request.method != "HEAD") return refusal(405, "GET or HEAD only");
    const bool empty = !request.has_header("Content-Length") || contentLength(request) == 0u;
    if (request.has_header("Transfer-Encoding") || !empty) return refusal(400, "a body where none belongs");
    return std::nullopt;
}

std::optional<Response> bodyHeadRefusal(const Request& request, std::uint64_t limit) {
    if (request.method != "POST") return refusal(405, "POST only");
    if (auto refused = framingRefusal(request, limit)) return refused;
    return encodingRefusal(request);
}

}  // namespace

Resource resourceAt(const std::string& path) {
    if (std::find(kEventPaths.begin(), kEventPaths.end(), path) != kEventPaths.end()) return Resource::Events;
    if (path == kUploadPath) return Resource::Upload;
    if (path == kLogDataPath) return Resource::LogData;
    return bagName(path).empty() ? Resource::None : Resource::Bag;
}

std::string_view bagName(std::string_view path) {
    for (const std::string_view prefix : kBagPaths)
        if (path.starts_with(prefix)) return path.substr(prefix.size());
    return {};
}

void normaliseHead(Request& request) {
    request.ranges.clear();
    request.headers.erase("Accept-Encoding");
    const auto encoding = header(request, "Content-Encoding");
    request.headers.erase(kEncodingHeader);
    request.headers.erase("Content-Encoding");
    if (encoding) request.set_header(kEncodingHeader, *encoding);
}

std::optional<Response> refusalByHead(const Request& request, const RequestLimits& limits) {
    const Resource resource = resourceAt(request.path);
    if (resource == Resource::None) return refusal(404, "there is nothing here");
    if (resource == Resource::Bag) return bagRefusal(request);
    if (limits.bodyBytes(resource) == 0) return refusal(404, "no uploads are taken here");
    if (auto refused = bodyHeadRefusal(request, limits.bodyBytes(resource))) return refused;
    if (resource == Resource::Events && mediaType(request) != "application/json")
        return refusal(415, "the body is not JSON");
    if (resource == Resource::Upload)
        if (auto refused = queryRefusal(request)) return refused;
    return multipartRefusal(request);
}

bool isPacked(const Request& request) {
    return request.get_header_value(kEncodingHeader) == "gzip";
}

std::optional<std::string> header(const Request& request, const char* name) {
    if (!request.has_header(name)) return std::nullopt;
    return request.get_header_value(name);
}

std::optional<std::uint64_t> contentLength(const Request& request) {
    const auto text = header(request, "Content-Length");
    if (!text || request.get_header_value_count("Content-Length") != 1) return std::nullopt;
    std::uint64_t length = 0;
    const char* end = text->data() + text->size();
    const auto result = std::from_chars(text->data(), end, length);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return length;
}

}  // namespace quorvane::collector
