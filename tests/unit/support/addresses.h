// Addresses from their text form, for test input. A text that is not an
// address throws std::invalid_argument, so a typo cannot pass for 0.0.0.0.
//
// Header-only and free of GoogleTest: any unit binary and the fuzz targets
// can use it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <stdexcept>

namespace lumora::test {

inline in_addr ipv4Of(const char* text) {
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) throw std::invalid_argument(text);
    return a;
}

inline in6_addr ipv6Of(const char* text) {
    in6_addr a{};
    if (inet_pton(AF_INET6, text, &a) != 1) throw std::invalid_argument(text);
    return a;
}

// The short names of tests that spell many addresses.
inline constexpr auto& v4 = ipv4Of;
inline constexpr auto& v6 = ipv6Of;

}  // namespace lumora::test
