#pragma once

#include <functional>
#include <memory>
#include <string_view>

namespace quorvane::collector {

/// Unpacks one gzip stream (RFC 1952) that comes in pieces.
class Gunzip {
  public:
    /// Takes unpacked bytes; false ends the unpacking.
    using Take = std::function<bool(std::string_view)>;

    Gunzip();
    ~Gunzip();
    Gunzip(const Gunzip&) = delete;
    Gunzip& operator=(const Gunzip&) = delete;

    /// Unpacks one more piece. False when the bytes are no gzip stream, when something follows its end, or
    /// when take answered false.
    bool feed(std::string_view packed, const Take& take);

    /// Whether the stream has come to its end and its checksum held.
    bool complete() const { return _complete; }

  private:
    struct Stream;
    std::unique_ptr<Stream> _stream;
    bool _complete = false;
};

}  // namespace quorvane::collector
