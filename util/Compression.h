#pragma once

#include "platform/value/Value.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <span>

struct z_stream_s;

namespace quorvane {

struct EndDeflate {
    void operator()(z_stream_s* stream) const;
};

/// One deflate stream of the whole input at zlib's default level, with the gzip (RFC 1952) or the zlib
/// (RFC 1950) wrapper. Nothing, and an error line, when the input is empty, larger than 2 GiB, or zlib fails.
std::optional<Data> compressDataWithZlibOrGzip(bool gzip, std::span<const std::uint8_t> input);

/// The gzip form.
std::optional<Data> gzipDeflate(std::span<const std::uint8_t> input);

/// The gzip form of an input that comes piece by piece, so that no more of it is held than a piece.
class GzipDeflater {
  public:
    /// Room for the compressed form of so many bytes; the input may turn out shorter or longer. Memory is
    /// taken up as the stream grows.
    explicit GzipDeflater(std::size_t expectedInput);
    ~GzipDeflater();
    GzipDeflater(const GzipDeflater&) = delete;
    GzipDeflater& operator=(const GzipDeflater&) = delete;

    /// The first failure writes an error line, and from then on all fails: zlib fails, memory runs out, or
    /// the input grows past 4 GiB.
    bool append(std::span<const std::uint8_t> piece);
    /// The whole stream. To be called once.
    std::optional<Data> finish();

  private:
    bool fail(int result);
    bool deflate(int flush);

    /// Null after a failure.
    std::unique_ptr<z_stream_s, EndDeflate> _stream;
    Data _output;
};

}  // namespace quorvane
