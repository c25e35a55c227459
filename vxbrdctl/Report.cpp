#include "vxbrdctl/Report.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <charconv>
#include <limits>

namespace lumora::ctl {

namespace {

// The reply cut into lines. Every line the daemon sends ends in a newline,
// so a reply that does not was cut short on the way.
class Lines {
  public:
    explicit Lines(std::string_view reply) : rest_(reply) {
        if (!reply.empty() && reply.back() != '\n') {
            size_t count = 0;
            for (char c : reply)
                if (c == '\n') ++count;
            throw ReportError(count + 1, "the reply ends inside a line (cut short?)");
        }
    }

    bool done() const { return rest_.empty(); }
    // The number of the line next() returned last.
    size_t number() const { return number_; }
    std::string_view peek() const { return rest_.substr(0, rest_.find('\n')); }
    std::string_view next() {
        const size_t end = rest_.find('\n');
        const std::string_view line = rest_.substr(0, end);
        rest_.remove_prefix(end + 1);
        ++number_;
        return line;
    }

  private:
    std::string_view rest_;
    size_t number_ = 0;
};

[[noreturn]] void fail(const Lines& lines, const std::string& what) {
    throw ReportError(lines.number(), what);
}

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

// Plain decimal, as the daemon prints unsigned values: digits only, in range.
template <typename Unsigned>
std::optional<Unsigned> decimal(std::string_view text) {
    if (text.empty()) return std::nullopt;
    for (char c : text)
        if (c < '0' || c > '9') return std::nullopt;
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (value > std::numeric_limits<Unsigned>::max()) return std::nullopt;
    return static_cast<Unsigned>(value);
}

template <typename Unsigned>
Unsigned number(const Lines& lines, std::string_view text, const char* what) {
    const std::optional<Unsigned> value = decimal<Unsigned>(text);
    if (!value) fail(lines, std::string("invalid ") + what + " " + quoted(text));
    return *value;
}

bool isAddress(std::string_view text) {
    const std::string copy(text);
    in6_addr scratch{};
    return inet_pton(AF_INET, copy.c_str(), &scratch) == 1 ||
           inet_pton(AF_INET6, copy.c_str(), &scratch) == 1;
}

std::string address(const Lines& lines, std::string_view text) {
    if (!isAddress(text)) fail(lines, "invalid peer address " + quoted(text));
    return std::string(text);
}

bool isHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// "%02x:%02x:%02x:%02x:%02x:%02x", the daemon's only MAC form.
std::string mac(const Lines& lines, std::string_view text) {
    bool good = text.size() == 17;
    for (size_t i = 0; good && i < text.size(); ++i)
        good = i % 3 == 2 ? text[i] == ':' : isHex(text[i]);
    if (!good) fail(lines, "invalid MAC address " + quoted(text));
    return std::string(text);
}

// The rest of line after prefix; fails when line does not start with it.
std::string_view after(const Lines& lines, std::string_view line, std::string_view prefix) {
    if (line.substr(0, prefix.size()) != prefix)
        fail(lines, "expected " + quoted(prefix) + ", got " + quoted(line));
    return line.substr(prefix.size());
}

// "FIRST A, SECOND B" -> {A, B}.
std::pair<std::string_view, std::string_view> twoFields(const Lines& lines, std::string_view line,
                                                        std::string_view first,
                                                        std::string_view second) {
    const std::string_view rest = after(lines, line, first);
    const size_t comma = rest.find(second);
    if (comma == std::string_view::npos)
        fail(lines, "expected " + quoted(second) + " in " + quoted(line));
    return {rest.substr(0, comma), rest.substr(comma + second.size())};
}

bool startsWith(std::string_view line, std::string_view prefix) {
    return line.substr(0, prefix.size()) == prefix;
}

Client parseClient(Lines& lines) {
    Client client;
    client.mac = mac(lines, after(lines, lines.next(), "client: "));
    if (lines.done()) fail(lines, "the client block ends after its first line");
    const std::string_view peer = after(lines, lines.next(), "  peer: ");
    if (peer != "unknown") client.peer = address(lines, peer);
    // The optional lines come in this order, each at most once.
    if (!lines.done() && startsWith(lines.peek(), "  associated vlan: "))
        client.vlan =
            number<uint16_t>(lines, after(lines, lines.next(), "  associated vlan: "), "VLAN");
    if (!lines.done() && startsWith(lines.peek(), "  gre key: "))
        client.greKey =
            number<uint32_t>(lines, after(lines, lines.next(), "  gre key: "), "GRE key");
    if (!lines.done() && startsWith(lines.peek(), "  mapped vlan: "))
        client.mappedVlan =
            number<uint16_t>(lines, after(lines, lines.next(), "  mapped vlan: "), "mapped VLAN");
    if (lines.done()) fail(lines, "the client block ends before its byte counters");
    const auto bytes = twoFields(lines, lines.next(), "  bytes in: ", ", bytes out: ");
    client.bytesIn = number<uint64_t>(lines, bytes.first, "byte count");
    client.bytesOut = number<uint64_t>(lines, bytes.second, "byte count");
    if (lines.done()) fail(lines, "the client block ends before its packet counters");
    const auto packets = twoFields(lines, lines.next(), "  packets in: ", ", packets out: ");
    client.packetsIn = number<uint64_t>(lines, packets.first, "packet count");
    client.packetsOut = number<uint64_t>(lines, packets.second, "packet count");
    return client;
}

}  // namespace

ReportError::ReportError(size_t line, const std::string& message)
    : std::runtime_error("line " + std::to_string(line) + ": " + message), line_(line) {}

uint16_t Client::servedVlan() const {
    if (mappedVlan && *mappedVlan != 0) return *mappedVlan;
    return vlan.value_or(0);
}

std::vector<Peer> parsePeers(std::string_view reply) {
    std::vector<Peer> peers;
    Lines lines(reply);
    while (!lines.done()) {
        const auto [text, vlan] = twoFields(lines, lines.next(), "peer: ", ", vlan: ");
        peers.push_back({address(lines, text), number<uint16_t>(lines, vlan, "VLAN")});
    }
    return peers;
}

std::vector<Client> parseClients(std::string_view reply) {
    std::vector<Client> clients;
    Lines lines(reply);
    while (!lines.done()) clients.push_back(parseClient(lines));
    return clients;
}

bool isUnknownRequestReply(std::string_view reply) {
    return startsWith(reply, "Unknown Request: '");
}

}  // namespace lumora::ctl
