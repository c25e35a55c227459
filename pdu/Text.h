// Addresses as text for log lines and reports. Every form formats into a
// buffer of its own and allocates nothing (except the std::string form).
#pragma once

#include <cstdint>
#include <string>

namespace lumora::pdu {

// "%02x:%02x:%02x:%02x:%02x:%02x" of six bytes, into an 18-byte buffer of the
// calling thread. Valid until the same thread calls this again.
const char* macToText(const uint8_t* mac);
// The same text, assigned to the caller's string.
void macToText(const uint8_t* mac, std::string& text);

// The same text for a MAC packed as packMac() packs it (first byte in the
// lowest 8 bits). The control-socket reports, the ingress path and the egress
// path's unknown-host message format through here.
//
// The daemon has always kept one process-wide 24-byte buffer for this text,
// written by every thread without a lock. It still does, but the buffer is
// made of relaxed atomics so that concurrent writers are not a data race, and
// the pointer returned is the calling thread's own 24-byte copy of the text:
// handing out the shared buffer would let another thread rewrite it while
// printf is reading it. What a caller prints is therefore the text it asked
// for, valid until the same thread calls this again.
const char* packedMacToText(uint64_t packed);
// Copies the process-wide buffer as it stands: the text most recently formatted
// by packedMacToText in any thread (characters of two racing writers may mix).
void sharedMacText(char (&copy)[24]);

// inet_ntop of a 4-byte (family AF_INET) or 16-byte (AF_INET6) address into a
// 46-byte buffer of the calling thread; the buffer holds "" for a family
// inet_ntop refuses. Valid until the same thread calls this again.
const char* addressToText(int family, const void* address);

}  // namespace lumora::pdu
