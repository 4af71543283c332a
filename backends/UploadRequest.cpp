#include "backends/UploadRequest.h"

#include "platform/value/Text.h"

#include <utility>

namespace quorvane {

platform::HttpRequest uploadRequest(std::string url, Data body) {
    platform::HttpRequest request;
    request.url = std::move(url);
    request.method = "POST";
    request.headers = {{"Content-Type", "application/octet-stream"}};
    request.body = std::move(body);
    return request;
}

std::optional<std::string> replyText(const platform::HttpResponse& response) {
    std::string text(response.body.begin(), response.body.end());
    if (!platform::isUtf8(text)) return std::nullopt;
    return text;
}

}  // namespace quorvane
