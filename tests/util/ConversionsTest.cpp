#include "util/Conversions.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace quorvane {
namespace {

TEST(ConversionsTest, TimesBecomeSecondsAndMinutes) {
    EXPECT_DOUBLE_EQ(secondsFromTimeValue({130, 500'000}), 130.5);
    EXPECT_DOUBLE_EQ(secondsFromTimeValue({-1, 750'000}), -0.25);
    for (const auto& [seconds, minute] : std::initializer_list<std::pair<std::int64_t, std::int64_t>>{
             {0, 0}, {59, 0}, {60, 60}, {119, 60}, {-1, 0}, {-59, 0}, {-61, -60}})
        EXPECT_EQ(roundDownToMinute(seconds), minute) << seconds;
    EXPECT_EQ(roundDownToMinute(std::numeric_limits<std::int64_t>::min()) % 60, 0);
}

TEST(ConversionsTest, WhatIsNotFiniteIsMinusOne) {
    EXPECT_EQ(finiteOrMinusOne(-0.5), -0.5);
    for (const double number : {std::nan(""), HUGE_VAL, -HUGE_VAL}) EXPECT_EQ(finiteOrMinusOne(number), -1.0);
}

TEST(ConversionsTest, AnAddressIsADottedQuadOfAtMostSixteenCharacters) {
    const sockaddr_in address = ipv4SocketAddress("192.0.2.17", 4711);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), 4711);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), 0xc0000211u);
    EXPECT_EQ(ntohl(ipv4SocketAddress("255.255.255.254 and more", 1).sin_addr.s_addr), 0xfffffffeu);
    for (const char* bad : {"", "collector.invalid", "1.2.3.4.5", "::1", "256.1.1.1"})
        EXPECT_EQ(ipv4SocketAddress(bad, 1).sin_addr.s_addr, INADDR_NONE) << bad;
}

}  // namespace
}  // namespace quorvane
