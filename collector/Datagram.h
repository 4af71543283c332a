#pragma once

#include "platform/value/Value.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace quorvane::collector {

/// What one datagram of a device's dashboard tells: a header of 64 bytes and a text of keys and values.
struct Datagram {
    static constexpr std::size_t kHeaderBytes = 64;
    static constexpr std::size_t kMaximumTextBytes = 1023;

    std::uint8_t versionMajor = 0;  ///< of the daemon
    std::uint8_t clientType = 0;
    double eventTime = 0;  ///< seconds since 1970, in steps of 4 ms
    std::uint32_t sessionID = 0;
    std::uint16_t clientVersion = 0;
    std::uint16_t method = 0;
    std::uint16_t status = 0;
    std::uint16_t eventNumber = 0;
    std::string deviceID;
    bool reliable = false;         ///< the sender waits for an acknowledgement
    bool explicitAddress = false;  ///< the sender was told the address otherwise than by a storebag
    bool cut = false;              ///< the text may have been longer
    Dictionary values;             ///< texts
};

/// Reads a datagram; nothing when it is none, or not all of one.
std::optional<Datagram> decodeDatagram(std::span<const std::uint8_t> bytes);

/// The keys and values of a text such as " key=value other=a\=b". A value may hold blanks, so a key starts
/// behind the last blank before its "=".
Dictionary valuesOfText(std::string_view text);

}  // namespace quorvane::collector
