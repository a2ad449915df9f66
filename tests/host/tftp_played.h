// A TFTP server that a test plays, packet by packet.
#ifndef TFTP_PLAYED_H
#define TFTP_PLAYED_H

#include "tftp_fixture.h"

#include "base/unique_fd.h"
#include "tftp/packet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace tftp_test {

using ruma::tftp::ErrorCode;
using ruma::tftp::Opcode;

using Bytes = std::string;

// --- Packets

inline Bytes data(uint16_t block, const Bytes &text) {
    Bytes packet(ruma::tftp::header_size, '\0');
    ruma::tftp::write_header(packet.data(), Opcode::data, block);
    return packet + text;
}
inline Bytes data(uint16_t block, std::size_t size) { return data(block, Bytes(size, 'd')); }
inline Bytes ack(uint16_t block) { return ruma::tftp::acknowledgement(block); }
inline Bytes error(unsigned code, const Bytes &text = "no") {
    return ruma::tftp::error(static_cast<ErrorCode>(code), text);
}

// Texts, each with its terminator.
inline Bytes texts(const std::vector<Bytes> &all) {
    Bytes bytes;
    for (const Bytes &text : all)
        bytes += text + '\0';
    return bytes;
}
inline Bytes oack(const std::vector<Bytes> &options) { return Bytes("\0\6", 2) + texts(options); }
inline Bytes read_request(const std::vector<Bytes> &words) {
    return Bytes("\0\1", 2) + texts(words);
}
inline Bytes write_request(const std::vector<Bytes> &words) {
    return Bytes("\0\2", 2) + texts(words);
}

MATCHER_P(IsError, code, "an ERROR of code " + std::to_string(code)) {
    const auto packet = ruma::tftp::parse(arg);
    return packet && packet->opcode == Opcode::error && packet->number == code;
}

inline uint16_t block_of(const Bytes &packet) {
    return packet.size() < 4 ? 0 : ruma::tftp::parse(packet)->number;
}

// --- Sockets

class Socket {
  public:
    explicit Socket(const std::string &address, uint16_t port = 0)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in wanted = socket_address(address, port);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr *>(&wanted), sizeof wanted),
                  0);
    }

    // The next datagram, or nothing when none comes in time.
    Bytes receive(milliseconds time = milliseconds(5000)) {
        pollfd wait{socket_.get(), POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(time.count())) != 1)
            return {};
        char buffer[4096];
        socklen_t size = sizeof sender_;
        const ssize_t length = recvfrom(socket_.get(), buffer, sizeof buffer, 0,
                                        reinterpret_cast<sockaddr *>(&sender_), &size);
        return length < 0 ? Bytes() : Bytes(buffer, static_cast<std::size_t>(length));
    }

    void send(const Bytes &packet, const sockaddr_in &to) const {
        sendto(socket_.get(), packet.data(), packet.size(), 0,
               reinterpret_cast<const sockaddr *>(&to), sizeof to);
    }

    const sockaddr_in &sender() const { return sender_; }

    uint16_t port() const {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address), &size);
        return ntohs(address.sin_port);
    }

    void close() { static_cast<void>(socket_.close()); }

  private:
    ruma::UniqueFd socket_;
    sockaddr_in sender_{};
};

// A server on the address that the client was told: requests come to one port, transfers run over
// another.
class Played {
  public:
    // Takes the next request; what follows goes to and comes from its sender.
    Bytes request() {
        Bytes packet = requests_.receive();
        EXPECT_FALSE(packet.empty()) << "no request";
        client = requests_.sender();
        return packet;
    }

    void send(const Bytes &packet) const { transfer.send(packet, client); }

    Bytes receive(milliseconds time = milliseconds(5000)) { return transfer.receive(time); }

    Bytes exchange(const Bytes &packet) {
        send(packet);
        return receive();
    }

    // How many packets of the client wait to be received.
    int waiting() {
        int count = 0;
        while (!receive(milliseconds(0)).empty())
            ++count;
        return count;
    }

    Socket &request_socket() { return requests_; }

    sockaddr_in client{};
    Socket transfer{own_address()};

  private:
    Socket requests_{own_address(), 69};
};

class TftpPlayed : public Tftp {
  protected:
    void SetUp() override {
        Tftp::SetUp();
        // Much shorter than in life, but for the retransmission, which disturbs no test that is
        // about something else.
        ruma::tftp::limits() = {.silence = milliseconds(3000),
                                .total = milliseconds(20000),
                                .retransmission = milliseconds(2000)};
        write_file(local / "sent", content(1000));
    }

    // Runs a transfer while the server plays its part, and waits for both.
    template <typename Transfer, typename Part>
    int during(const Transfer &transfer, const Part &part) {
        std::thread thread([&] { part(played); });
        const int result = transfer();
        thread.join();
        return result;
    }
    template <typename Part>
    int get_from(const Part &part) {
        return during([this] { return get(); }, part);
    }
    template <typename Part>
    int put_to(const Part &part) {
        return during([] { return tftp_put("sent", 0); }, part);
    }

    Played played;
};

} // namespace tftp_test

#endif
