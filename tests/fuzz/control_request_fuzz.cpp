// Arbitrary control-socket requests through replyTo, the reply to the bytes
// of one read, against the tables of control_tables.h; each reply is checked
// against the protocol. control_server_fuzz drives the serving loop itself.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "control/Reports.h"
#include "tests/fuzz/control_tables.h"

namespace {

constexpr size_t kMaxRequest = 4096;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static lumora::fuzz::ControlTables* filled = new lumora::fuzz::ControlTables;
    if (size > kMaxRequest) return 0;
    const std::string_view request(reinterpret_cast<const char*>(data), size);
    if (lumora::replyTo(filled->tables, request) != filled->expectedReply(request)) std::abort();
    return 0;
}
