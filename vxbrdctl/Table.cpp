#include <algorithm>

#include "vxbrdctl/Output.h"

namespace lumora::ctl {

namespace {

struct Column {
    const char* title;
    bool numeric;  // right-aligned
};

using Row = std::vector<std::string>;

// Lays rows out under columns. The last column is not padded on the right,
// so no line ends in blanks.
std::string layout(const std::vector<Column>& columns, const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (const Column& column : columns) widths.push_back(std::string_view(column.title).size());
    for (const Row& row : rows)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());

    std::string out;
    auto line = [&](const Row& cells) {
        for (size_t i = 0; i < cells.size(); ++i) {
            const std::string padding(widths[i] - cells[i].size(), ' ');
            if (i > 0) out += "  ";
            if (columns[i].numeric) out += padding;
            out += cells[i];
            if (!columns[i].numeric && i + 1 < cells.size()) out += padding;
        }
        out += '\n';
    };
    Row titles;
    for (const Column& column : columns) titles.emplace_back(column.title);
    line(titles);
    for (const Row& row : rows) line(row);
    return out;
}

template <typename T>
std::string orDash(const std::optional<T>& value) {
    return value ? std::to_string(*value) : "-";
}

}  // namespace

std::string peersTable(const std::vector<Peer>& peers) {
    std::vector<Row> rows;
    for (const Peer& peer : peers) rows.push_back({peer.address, std::to_string(peer.vlan)});
    return layout({{"PEER", false}, {"VLAN", true}}, rows);
}

std::string clientsTable(const std::vector<Client>& clients) {
    std::vector<Row> rows;
    for (const Client& client : clients) {
        rows.push_back({client.mac, client.peer.value_or("unknown"),
                        std::to_string(client.servedVlan()), orDash(client.vlan),
                        orDash(client.greKey), orDash(client.mappedVlan),
                        std::to_string(client.bytesIn), std::to_string(client.bytesOut),
                        std::to_string(client.packetsIn), std::to_string(client.packetsOut)});
    }
    return layout({{"MAC", false},
                   {"PEER", false},
                   {"VLAN", true},
                   {"TAG", true},
                   {"KEY", true},
                   {"MAPPED", true},
                   {"BYTES-IN", true},
                   {"BYTES-OUT", true},
                   {"PKTS-IN", true},
                   {"PKTS-OUT", true}},
                  rows);
}

}  // namespace lumora::ctl
