#include "util/Compression.h"

#include "platform/Log.h"

#include <zlib.h>

#include <cstdint>
#include <limits>
#include <string_view>

namespace quorvane {

using platform::logError;

namespace {

constexpr int kZlibWindowBits = 15;
constexpr int kGzipWindowBits = kZlibWindowBits + 16;
constexpr int kMemoryLevel = 8;
/// The zlib interface that the calls below were written for; the library refuses another major version.
constexpr const char* kZlibVersion = "1.2.5";

std::string_view initializationMessage(int result) {
    switch (result) {
        case Z_VERSION_ERROR:
            return "The version of zlib.h and the version of the library linked do not match.";
        case Z_MEM_ERROR:
            return "Insufficient memory.";
        case Z_STREAM_ERROR:
            return "Invalid parameter passed in to function.";
        default:
            return "Unknown error code.";
    }
}

std::string_view compressionMessage(int result) {
    switch (result) {
        case Z_VERSION_ERROR:
            return "The version of zlib.h and the version of the library linked do not match.";
        case Z_BUF_ERROR:
            return "Ran out of output buffer for writing compressed bytes.";
        case Z_MEM_ERROR:
            return "Memory could not be allocated for processing.";
        case Z_DATA_ERROR:
            return "The deflate data was invalid or incomplete.";
        case Z_STREAM_ERROR:
            return "The stream state was inconsistent (e.g., next_in or next_out was NULL).";
        case Z_ERRNO:
            return "Error occured while reading file.";
        default:
            return "Unknown error code.";
    }
}

std::string_view ownMessage(const z_stream& stream) {
    return stream.msg != nullptr ? std::string_view(stream.msg) : platform::absentText;
}

/// Runs the stream to its end into a buffer of the worst-case size.
std::optional<Data> deflateWhole(z_stream& stream, std::size_t inputSize) {
    Data output(::deflateBound(&stream, static_cast<uLong>(inputSize)));
    int result = Z_OK;
    while (result == Z_OK) {
        stream.next_out = output.data() + stream.total_out;
        stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
        result = ::deflate(&stream, Z_FINISH);
    }
    if (result != Z_STREAM_END) {
        logError(
            "compressDataWithZlibOrGzip: zlib error while attempting compression: \"{}\" Message: \"{}\"",
            compressionMessage(result), ownMessage(stream));
        return std::nullopt;
    }
    output.resize(stream.total_out);
    platform::logDebug("compressDataWithZlibOrGzip: Compressed file from {} to {}", inputSize, output.size());
    return output;
}

}  // namespace

std::optional<Data> compressDataWithZlibOrGzip(bool gzip, std::span<const std::uint8_t> input) {
    if (input.empty()) {
        logError("compressDataWithZlibOrGzip: Cannot compress empty NSData");
        return std::nullopt;
    }
    // Room for the worst case must be countable in 32 bits too.
    if (input.size() > std::numeric_limits<std::int32_t>::max()) {
        logError("compressDataWithZlibOrGzip: Cannot compress {} bytes at once", input.size());
        return std::nullopt;
    }
    z_stream stream{};
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    const int result =
        ::deflateInit2_(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzip ? kGzipWindowBits : kZlibWindowBits,
                        kMemoryLevel, Z_DEFAULT_STRATEGY, kZlibVersion, sizeof stream);
    if (result != Z_OK) {
        logError("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"{}\"",
                 initializationMessage(result), ownMessage(stream));
        return std::nullopt;
    }
    std::optional<Data> output = deflateWhole(stream, input.size());
    ::deflateEnd(&stream);
    return output;
}

std::optional<Data> gzipDeflate(std::span<const std::uint8_t> input) {
    return compressDataWithZlibOrGzip(true, input);
}

}  // namespace quorvane
