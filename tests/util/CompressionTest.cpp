#include "util/Compression.h"

#include "tests/support/RootFixture.h"

#include <gmock/gmock.h>
#include <zlib.h>

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

class CompressionTest : public RootFixture {};

TEST_F(CompressionTest, AReaderGetsTheInputBack) {
    Data noise(200'000);
    std::uint32_t state = 1;
    for (std::uint8_t& byte : noise)
        byte = static_cast<std::uint8_t>((state = state * 1664525 + 1013904223) >> 24);
    for (const Data& input : {Data{0}, Data(1'000'000, 'x'), noise})
        for (const bool gzip : {true, false}) {
            const std::optional<Data> stream = compressDataWithZlibOrGzip(gzip, input);
            ASSERT_TRUE(stream);
            EXPECT_EQ(expanded(*stream, input.size()), input);
        }
}

TEST_F(CompressionTest, TheWrapperIsTheOneAskedFor) {
    const Data input(3000, 'x');
    const std::optional<Data> gzip = gzipDeflate(input);
    ASSERT_TRUE(gzip && gzip->size() > 3);
    EXPECT_THAT(std::span(*gzip).first(3), testing::ElementsAre(0x1f, 0x8b, 8));
    EXPECT_EQ(
        logged(fmt::format("<7>compressDataWithZlibOrGzip: Compressed file from 3000 to {}", gzip->size())),
        1u);
    const std::optional<Data> zlib = compressDataWithZlibOrGzip(false, input);
    ASSERT_TRUE(zlib && zlib->size() > 2);
    EXPECT_THAT(std::span(*zlib).first(2), testing::ElementsAre(0x78, 0x9c));
}

TEST_F(CompressionTest, PiecesBecomeOneStream) {
    Data input(3'000'000);
    std::uint32_t state = 1;
    for (std::size_t i = 0; i < input.size(); ++i)
        input[i] = i < 1'000'000 ? 'x' : static_cast<std::uint8_t>((state = state * 69069 + 1) >> 24);
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
        EXPECT_EQ(logged(fmt::format("<7>compressDataWithZlibOrGzip: Compressed file from 3000000 to {}",
                                     stream->size())),
                  expected != 0 ? 1u : 2u);
    }
}

TEST_F(CompressionTest, WhatCannotBeCountedIn32BitsIsRefused) {
    GzipDeflater gzip(std::size_t{1} << 31);
    EXPECT_FALSE(gzip.append(Data{1}));
    EXPECT_EQ(gzip.finish(), std::nullopt);
    EXPECT_EQ(logged("<3>compressDataWithZlibOrGzip: Cannot compress 2147483648 bytes at once"), 1u);
}

TEST_F(CompressionTest, NothingCannotBeCompressed) {
    EXPECT_EQ(gzipDeflate({}), std::nullopt);
    EXPECT_EQ(logged("<3>compressDataWithZlibOrGzip: Cannot compress empty NSData"), 1u);
}

}  // namespace
}  // namespace quorvane
