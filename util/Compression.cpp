#include "util/Compression.h"

#include "platform/base/Log.h"

#include <zlib.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

namespace quorvane {

using platform::logError;

namespace {

constexpr int kZlibWindowBits = 15;
constexpr int kGzipWindowBits = kZlibWindowBits + 16;
constexpr int kMemoryLevel = 8;
constexpr std::size_t kOutputStep = 64u << 10;
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

constexpr std::size_t kMaximumInput = std::numeric_limits<std::uint32_t>::max();
/// In one piece the worst case of the output has to be counted in 32 bits, too.
constexpr std::size_t kMaximumPiece = std::numeric_limits<std::int32_t>::max();

/// An error line when not.
bool isCountable(std::size_t inputSize, std::size_t maximum) {
    const bool countable = inputSize <= maximum;
    if (!countable) logError("compressDataWithZlibOrGzip: Cannot compress {} bytes at once", inputSize);
    return countable;
}

using Stream = std::unique_ptr<z_stream, EndDeflate>;

/// Null after an error line.
Stream newStream(bool gzip) {
    auto stream = std::make_unique<z_stream>();
    const int result = ::deflateInit2_(stream.get(), Z_DEFAULT_COMPRESSION, Z_DEFLATED,
                                       gzip ? kGzipWindowBits : kZlibWindowBits, kMemoryLevel,
                                       Z_DEFAULT_STRATEGY, kZlibVersion, sizeof *stream);
    if (result == Z_OK) return Stream(stream.release());
    logError("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"{}\"",
             initializationMessage(result), ownMessage(*stream));
    return nullptr;
}

/// What the last compression into the gzip form left for the next: a stream takes and clears a quarter of a
/// megabyte when it is set up, more work than a short text is.
std::atomic<z_stream*> spareGzipStream = nullptr;

Stream takeStream(bool gzip) {
    if (z_stream* const spare = gzip ? spareGzipStream.exchange(nullptr) : nullptr) return Stream(spare);
    return newStream(gzip);
}

void keepStream(Stream stream) {
    if (::deflateReset(stream.get()) == Z_OK) stream.reset(spareGzipStream.exchange(stream.release()));
}

void logFailure(int result, std::string_view ownMessage) {
    logError("compressDataWithZlibOrGzip: zlib error while attempting compression: \"{}\" Message: \"{}\"",
             compressionMessage(result), ownMessage);
}

void logSuccess(std::size_t inputSize, std::size_t outputSize) {
    platform::logDebug("compressDataWithZlibOrGzip: Compressed file from {} to {}", inputSize, outputSize);
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
        logFailure(result, ownMessage(stream));
        return std::nullopt;
    }
    output.resize(stream.total_out);
    output.shrink_to_fit();  // It may wait for long.
    logSuccess(inputSize, output.size());
    return output;
}

}  // namespace

std::optional<Data> compressDataWithZlibOrGzip(bool gzip, std::span<const std::uint8_t> input) {
    if (input.empty()) {
        logError("compressDataWithZlibOrGzip: Cannot compress empty NSData");
        return std::nullopt;
    }
    if (!isCountable(input.size(), kMaximumPiece)) return std::nullopt;
    Stream stream = takeStream(gzip);
    if (stream == nullptr) return std::nullopt;
    stream->next_in = const_cast<Bytef*>(input.data());
    stream->avail_in = static_cast<uInt>(input.size());
    std::optional<Data> output = deflateWhole(*stream, input.size());
    if (gzip) keepStream(std::move(stream));
    return output;
}

std::optional<Data> gzipDeflate(std::span<const std::uint8_t> input) {
    return compressDataWithZlibOrGzip(true, input);
}

void EndDeflate::operator()(z_stream_s* stream) const {
    ::deflateEnd(stream);
    delete stream;
}

GzipDeflater::GzipDeflater(std::size_t expectedInput) {
    if (isCountable(expectedInput, kMaximumInput)) _stream = takeStream(true);
    if (_stream == nullptr) return;
    try {
        // Pages that the stream does not reach are never touched.
        _output.reserve(::deflateBound(_stream.get(), static_cast<uLong>(expectedInput)) + kOutputStep);
    } catch (const std::bad_alloc&) {
        fail(Z_MEM_ERROR);
    }
}

GzipDeflater::~GzipDeflater() = default;

bool GzipDeflater::append(std::span<const std::uint8_t> piece) {
    if (_stream == nullptr) return false;
    if (!isCountable(_stream->total_in + piece.size(), kMaximumInput)) {
        _stream.reset();
        return false;
    }
    _stream->next_in = const_cast<Bytef*>(piece.data());
    _stream->avail_in = static_cast<uInt>(piece.size());
    return deflate(Z_NO_FLUSH);
}

std::optional<Data> GzipDeflater::finish() {
    if (_stream == nullptr || !deflate(Z_FINISH)) return std::nullopt;
    _output.resize(_stream->total_out);
    _output.shrink_to_fit();  // It may wait for long.
    logSuccess(_stream->total_in, _output.size());
    keepStream(std::move(_stream));
    return std::move(_output);
}

bool GzipDeflater::deflate(int flush) {
    try {
        do {
            _output.resize(_stream->total_out + kOutputStep);
            _stream->next_out = _output.data() + _stream->total_out;
            _stream->avail_out = static_cast<uInt>(kOutputStep);
            const int result = ::deflate(_stream.get(), flush);
            if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return fail(result);
        } while (_stream->avail_out == 0);
        return true;
    } catch (const std::bad_alloc&) {
        return fail(Z_MEM_ERROR);
    }
}

bool GzipDeflater::fail(int result) {
    logFailure(result, ownMessage(*_stream));
    _stream.reset();
    return false;
}

}  // namespace quorvane
