#pragma once

#include <string>
#include <string_view>

namespace quorvane::collector {

/// What a request is answered with.
struct Response {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";
};

/// A request that is not served: {"error": reason}. The reason is the collector's own text, never a sender's:
/// uploading devices search answers for the word that lets them delete their file.
Response refusal(int status, std::string_view reason);

}  // namespace quorvane::collector
