// The serving loop driven pass by pass: the poll table's limit refuses the
// excess with a line, accepted connections are blocking with the send
// time-out, and a reply is one send.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "control/ControlSocket.h"

namespace lumora {
namespace {

struct Server {
    Server() {
        char pattern[] = "/tmp/vxbrd-server-XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
        directory = pattern;
        path = directory + "/vxbrd.sock";
    }
    ~Server() {
        unlink(path.c_str());
        rmdir(directory.c_str());
    }

    int connectClient() const {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("connect");
        return fd;
    }

    std::string directory;
    std::string path;
    Tables tables;
};

std::string readAll(int fd) {
    std::string out;
    char chunk[512];
    for (;;) {
        const ssize_t got = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (got <= 0) return got == 0 ? out + "<end>" : out;
        out.append(chunk, static_cast<size_t>(got));
    }
}

TEST(ControlServer, AcceptedConnectionsBlockWithTheSendTimeOut) {
    Server s;
    ControlServer server(openControlListener(s.path), s.tables);
    const int client = s.connectClient();
    testing::internal::CaptureStdout();
    ASSERT_EQ(server.pass(1000), 1);
    const std::vector<int> accepted = server.clients();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Accepted connection. client_socket=" + std::to_string(accepted.at(0)) + "\n");
    EXPECT_EQ(fcntl(accepted[0], F_GETFL) & O_NONBLOCK, 0);
    timeval limit{};
    socklen_t size = sizeof limit;
    ASSERT_EQ(getsockopt(accepted[0], SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
    EXPECT_EQ(limit.tv_sec * 1000 + limit.tv_usec / 1000, kSendTimeoutMilliseconds);
    close(client);
}

TEST(ControlServer, ThePollTableRefusesTheTwoHundredthClient) {
    Server s;
    ControlServer server(openControlListener(s.path), s.tables);
    std::vector<int> clients;
    testing::internal::CaptureStdout();
    // The backlog holds five: connect a few at a time and let the server take them.
    while (clients.size() < kPollTableSize - 1) {
        for (int i = 0; i < 4 && clients.size() < kPollTableSize - 1; ++i)
            clients.push_back(s.connectClient());
        server.pass(1000);
    }
    ASSERT_EQ(server.clients().size(), kPollTableSize - 1);
    (void)testing::internal::GetCapturedStdout();

    const int extra = s.connectClient();
    testing::internal::CaptureStdout();
    server.pass(1000);
    const std::string said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(said.rfind("Refused connection. client_socket=", 0), 0u) << said;
    EXPECT_NE(said.find(": 199 connections open\n"), std::string::npos) << said;
    EXPECT_EQ(readAll(extra), "<end>");
    EXPECT_EQ(server.clients().size(), kPollTableSize - 1);

    // The last accepted client is still served.
    ASSERT_EQ(send(clients.back(), "peers", 5, 0), 5);
    testing::internal::CaptureStdout();
    server.pass(1000);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(readAll(clients.back()), "");  // an empty table: a send of nothing
    ASSERT_EQ(send(clients.back(), "peer", 4, 0), 4);
    server.pass(1000);
    EXPECT_EQ(readAll(clients.back()),
              "Unknown Request: 'peer'\nValid Requests: peers\n                clients\n");

    // One that leaves makes room for the next.
    shutdown(clients.front(), SHUT_WR);
    testing::internal::CaptureStdout();
    server.pass(1000);
    const int next = s.connectClient();
    server.pass(1000);
    const std::string later = testing::internal::GetCapturedStdout();
    EXPECT_EQ(later.rfind("Connection closed. client socket=", 0), 0u) << later;
    EXPECT_NE(later.find("Accepted connection. client_socket="), std::string::npos) << later;
    EXPECT_EQ(server.clients().size(), kPollTableSize - 1);
    for (const int fd : clients) close(fd);
    close(extra);
    close(next);
}

}  // namespace
}  // namespace lumora
