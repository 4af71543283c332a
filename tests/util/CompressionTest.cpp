#include "util/Compression.h"

#include "tests/support/RootFixture.h"

#include <zlib.h>

#include <random>

namespace quorvane {
namespace {

/// What a reader of either wrapper makes of the stream.
Data expanded(const Data& stream, std::size_t size) {
    Data output(size + 1);
    z_stream reader{};
    EXPECT_EQ(inflateInit2(&reader, 15 + 32), Z_OK);
    reader.next_in = const_cast<Bytef*>(stream.data());
    reader.avail_in = static_cast<uInt>(stream.size());
    reader.next_out = output.data();
    reader.avail_out = static_cast<uInt>(output.size());
    EXPECT_EQ(inflate(&reader, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(reader.avail_in, 0u) << "nothing follows the stream";
    output.resize(reader.total_out);
    inflateEnd(&reader);
    return output;
}

using CompressionTest = RootFixture;

Data noise(std::size_t size) {
    std::minstd_rand random(1);
    Data bytes(size);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random() >> 8);
    return bytes;
}

TEST_F(CompressionTest, AReaderGetsTheInputBackFromTheWrapperAskedFor) {
    for (const Data& input : {Data{0}, Data(1'000'000, 'x'), noise(200'000)})
        for (const bool gzip : {true, false}) {
            const std::optional<Data> stream = compressDataWithZlibOrGzip(gzip, input);
            ASSERT_TRUE(stream && stream->size() > 2);
            EXPECT_EQ(expanded(*stream, input.size()), input);
            EXPECT_EQ(Data(stream->begin(), stream->begin() + 2),
                      gzip ? (Data{0x1f, 0x8b}) : (Data{0x78, 0x9c}));
            EXPECT_GE(logged(fmt::format("<7>compressDataWithZlibOrGzip: Compressed file from {} to {}",
                                         input.size(), stream->size())),
                      1u);
        }
    EXPECT_EQ(gzipDeflate({}), std::nullopt);
    EXPECT_EQ(logged("<3>compressDataWithZlibOrGzip: Cannot compress empty NSData"), 1u);
}

TEST_F(CompressionTest, PiecesBecomeOneStream) {
    Data input(1'000'000, 'x');
    const Data tail = noise(2'000'000);
    input.insert(input.end(), tail.begin(), tail.end());
    for (const std::size_t expected : {input.size(), std::size_t{0}}) {
        GzipDeflater gzip(expected);
        std::span<const std::uint8_t> rest = input;
        for (std::size_t size = 1; !rest.empty(); size = 3 * size + 1) {
            const auto piece = rest.first(std::min(size, rest.size()));
            EXPECT_TRUE(gzip.append(piece));
            rest = rest.subspan(piece.size());
        }
        const std::optional<Data> stream = gzip.finish();
        ASSERT_TRUE(stream);
        EXPECT_EQ(expanded(*stream, input.size()), input);
    }
    EXPECT_EQ(logged("<7>compressDataWithZlibOrGzip: Compressed file from 3000000 to "), 2u);
}

}  // namespace
}  // namespace quorvane
