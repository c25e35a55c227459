// Address-to-text conversions with per-thread result buffers.
#include "pdu/Text.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstdio>

#include "pdu/Ethernet.h"

namespace lumora::pdu {

namespace {

constexpr const char* kMacFormat = "%02x:%02x:%02x:%02x:%02x:%02x";

template <size_t N>
void formatMac(const uint8_t* mac, char (&text)[N]) {
    std::snprintf(text, N, kMacFormat, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

// Last text of packedMacToText in any thread; see Text.h for why it is atomic.
std::atomic<char> shared_mac_text[24];

}  // namespace

const char* macToText(const uint8_t* mac) {
    thread_local char text[18];
    formatMac(mac, text);
    return text;
}

void macToText(const uint8_t* mac, std::string& text) { text = macToText(mac); }

const char* packedMacToText(uint64_t packed) {
    thread_local char text[24];
    uint8_t mac[6];
    unpackMac(packed, mac);
    formatMac(mac, text);
    for (size_t i = 0; i < sizeof text; ++i)
        shared_mac_text[i].store(text[i], std::memory_order_relaxed);
    return text;
}

void sharedMacText(char (&copy)[24]) {
    for (size_t i = 0; i < sizeof copy; ++i)
        copy[i] = shared_mac_text[i].load(std::memory_order_relaxed);
    copy[sizeof copy - 1] = '\0';
}

const char* addressToText(int family, const void* address) {
    thread_local char text[46];
    if (inet_ntop(family, address, text, sizeof text) == nullptr) text[0] = '\0';
    return text;
}

}  // namespace lumora::pdu
