#include "backends/UploadBackend.h"

#include "backends/UploadRequest.h"
#include "backends/UploadRoom.h"
#include "platform/base/DescriptorIO.h"
#include "platform/base/Log.h"
#include "platform/sandbox/SandboxExtension.h"
#include "platform/value/Url.h"
#include "util/Compression.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

#include <fmt/format.h>

namespace quorvane {

using platform::logDebug;
using platform::logError;
using platform::orNull;

namespace {

constexpr std::size_t kPieceBytes = 256u << 10;
/// The most that is taken of a file whose size reads 0, as those of the kernel's do whatever they hold.
constexpr std::size_t kUnsizedBytes = 1u << 20;

/// Nothing for what is no regular file, or no file at all.
std::optional<std::size_t> sizeOfRegularFile(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    return static_cast<std::size_t>(status.st_size);
}

/// The file as it is now, but no more of it than the given size: it may grow as fast as it is read.
std::optional<Data> compressedFile(int descriptor, std::size_t size) {
    GzipDeflater gzip(size);
    std::vector<std::uint8_t> buffer(std::min(size, kPieceBytes));
    std::size_t offset = 0;
    std::optional<std::size_t> count = 0;
    do {
        const std::span<std::uint8_t> piece(buffer.data(), std::min(size - offset, buffer.size()));
        count = platform::readAt(descriptor, piece, offset);
        if (!count) break;
        if (!gzip.append(piece.first(*count))) return std::nullopt;
        offset += *count;
    } while (*count > 0 && offset < size);
    if (offset == 0 || !count) {
        logError("UploadBackend(uploadFileAtPath): Input file is empty");
        return std::nullopt;
    }
    return gzip.finish();
}

std::string_view lastPathComponent(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

std::shared_ptr<UploadBackend> UploadBackend::initWithName(const std::string& name,
                                                           const std::shared_ptr<const Dictionary>& profile,
                                                           const OptionalString& productFamily) {
    if (!accepts(profile.get())) return nullptr;
    return std::shared_ptr<UploadBackend>(new UploadBackend(name, profile, productFamily));
}

bool UploadBackend::accepts(const Dictionary* profile) {
    if (profile != nullptr && profile->string("post_url") != nullptr) return true;
    logError("UploadBackend(initWithName): can't resolve upload post URL.");
    return false;
}

UploadBackend::UploadBackend(const std::string& name, const std::shared_ptr<const Dictionary>& profile,
                             const OptionalString& productFamily)
    : QuorvaneBackend(name, profile, productFamily), _uploadURL(profile->text("post_url")) {
    setDisplayURL(profile->text("display_url"));
}

bool UploadBackend::uploadFileAtPath(const std::string& path, const char* extensionToken) {
    logDebug("UploadBackend(uploadFileAtPath): Uploading file {}", path);
    if (!_uploadURL) return false;

    const auto extension =
        platform::SandboxExtension::consume(extensionToken != nullptr ? extensionToken : "", path);
    const std::optional<std::size_t> size = sizeOfRegularFile(extension.descriptor());
    if (!size) {
        logError("UploadBackend(uploadFileAtPath): Only upload a regular file.");
        return false;
    }
    const std::size_t most = *size > 0 ? *size : kUnsizedBytes;
    auto room = uploadRoom(*_uploadURL, most);
    if (!room) {
        logError("UploadBackend(uploadFileAtPath): No room for file {}", path);
        return false;
    }
    std::optional<Data> compressed = compressedFile(extension.descriptor(), most);
    if (!compressed) return false;
    room->shrinkTo(compressed->size());

    std::string url = requestURL(path);
    if (!platform::isUrl(url)) {
        logError("UploadBackend(uploadFileAtPath): Unable to create URL request");
        return false;
    }
    if (post(std::move(url), std::move(*compressed))) extension.requestRemoval();
    return true;
}

std::string UploadBackend::requestURL(std::string_view path) const {
    return fmt::format("{}?uuid={}&sequence={}&description={}%20(Uploaded%20by%20LMS)&filename={}&raw=true",
                       *_uploadURL, udid() != nullptr ? udid() : platform::absentText, sessionID(),
                       platform::queryPercentEncoded("Callvane AFRC log"),
                       platform::queryPercentEncoded(fmt::format("{}.gz", lastPathComponent(path))));
}

bool UploadBackend::post(std::string url, Data compressed) const {
    platform::HttpRequest request = uploadRequest(std::move(url), std::move(compressed));
    request.headers.push_back({"Content-Encoding", "gzip"});
    const platform::HttpResult result = platform::performDataTask(std::move(request));
    if (result.error) {
        logError("UploadBackend(uploadFileAtPath): post {}", *result.error);
        return false;
    }
    const OptionalString reply = replyText(result.response);
    logDebug("UploadBackend(uploadFileAtPath): sending to |{}|, Json output: {}", orNull(_uploadURL),
             orNull(reply));
    return reply && reply->find("success") != std::string::npos;
}

}  // namespace quorvane
