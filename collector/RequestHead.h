#pragma once

#include "collector/Response.h"

#include <httplib.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::collector {

/// What a request's first line and headers tell, before its body has come.

enum class Resource { None, Bag, Events, Upload, LogData };

inline constexpr std::array<const char*, 2> kEventPaths{"/events", "/realtime"};
inline constexpr const char* kUploadPath = "/upload";
inline constexpr const char* kLogDataPath = "/logdata";

Resource resourceAt(const std::string& path);

/// The name behind one of the bags' paths; empty when the path is none of them.
std::string_view bagName(std::string_view path);

struct RequestLimits {
    std::uint64_t postBytes = 0;    ///< as sent and unpacked
    std::uint64_t uploadBytes = 0;  ///< likewise; 0 when no uploads are taken

    std::uint64_t bodyBytes(Resource resource) const {
        return resource == Resource::Events ? postBytes : uploadBytes;
    }
};

/// Takes out of the request what the library would act on by itself: ranges, packed answers, and the packing
/// of the body, which it would undo without telling half a stream from a whole one. Before everything else.
void normaliseHead(httplib::Request& request);

/// Why the request is refused on its head alone; nothing when it is not. The body of a refused request is not
/// read.
std::optional<Response> refusalByHead(const httplib::Request& request, const RequestLimits& limits);

/// Whether the body is a gzip stream.
bool isPacked(const httplib::Request& request);

/// The header's value; nothing when there is none.
std::optional<std::string> header(const httplib::Request& request, const char* name);

/// Nothing when the header is absent, stands twice or is no number.
std::optional<std::uint64_t> contentLength(const httplib::Request& request);

}  // namespace quorvane::collector
