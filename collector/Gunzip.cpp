#include "collector/Gunzip.h"

#include <zlib.h>

#include <array>
#include <new>

namespace quorvane::collector {

namespace {

constexpr int kGzipWindowBits = 15 + 16;  // zlib.h: 16 more for gzip alone

}  // namespace

struct Gunzip::Stream {
    z_stream state{};
};

Gunzip::Gunzip() : _stream(std::make_unique<Stream>()) {
    if (::inflateInit2(&_stream->state, kGzipWindowBits) != Z_OK) throw std::bad_alloc();
}

Gunzip::~Gunzip() {
    ::inflateEnd(&_stream->state);
}

bool Gunzip::feed(std::string_view packed, const Take& take) {
    std::array<char, 32768> unpacked;
    z_stream& state = _stream->state;
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    state.avail_in = static_cast<uInt>(packed.size());
    do {
        if (_complete) return state.avail_in == 0;
        state.next_out = reinterpret_cast<Bytef*>(unpacked.data());
        state.avail_out = static_cast<uInt>(unpacked.size());
        const int result = ::inflate(&state, Z_NO_FLUSH);
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) return false;
        _complete = result == Z_STREAM_END;
        const std::size_t count = unpacked.size() - state.avail_out;
        if (count > 0 && !take({unpacked.data(), count})) return false;
    } while (state.avail_in > 0 || state.avail_out == 0);
    return true;
}

}  // namespace quorvane::collector
