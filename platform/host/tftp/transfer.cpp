#include "tftp/transfer.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <unistd.h>

namespace ruma::tftp {
namespace {

// Returns 0 or an errno.
int write_all(int file, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(file, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? errno : EIO;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

// Returns 0 or an errno; EIO when the file ends before `size` bytes.
int read_all(int file, char *buffer, std::size_t size) {
    while (size > 0) {
        const ssize_t count = read(file, buffer, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count < 0 ? errno : EIO;
        buffer += count;
        size -= static_cast<std::size_t>(count);
    }
    return 0;
}

bool is(const Packet &packet, Opcode opcode, uint16_t number) {
    return packet.opcode == opcode && packet.number == number;
}

// Block numbers go from 65535 on to 0.
uint16_t after(uint16_t block) { return static_cast<uint16_t>(block + 1); }

} // namespace

Outcome fetch(const sockaddr_in &server, const Limits &limits, const std::string &name,
              IncomingFile *file) {
    Session session(server, limits);
    if (!session.request(Opcode::read_request, name, 0))
        return session.outcome();
    const Agreement &agreed = session.agreement();
    const bool acknowledge_options = session.packet().opcode == Opcode::option_acknowledgement;
    // Until the first block, what the server may repeat is its answer to the options.
    Opcode repeated = Opcode::option_acknowledgement;
    uint16_t block = 0;
    uint64_t received = 0;
    if (acknowledge_options) {
        session.send(acknowledgement(block));
        if (!session.next())
            return session.outcome();
    }
    for (;;) {
        const Packet &packet = session.packet();
        if (is(packet, Opcode::data, after(block))) {
            const std::size_t length = packet.payload.size();
            if (length > agreed.block_size)
                return session.fail_protocol("it sent a larger block than agreed");
            const bool last = length < agreed.block_size;
            received += length;
            if (agreed.size && (received > *agreed.size || (last && received < *agreed.size)))
                return session.fail_protocol("it sent another size than it announced");
            if (const int error = write_all(file->descriptor(), packet.payload))
                return session.fail_at_file(error);
            block = after(block);
            repeated = Opcode::data;
            if (last)
                break;
            session.send(acknowledgement(block));
        } else if (is(packet, repeated, block)) {
            session.answer_again();
        }
        if (!session.next())
            return session.outcome();
    }
    // The file stands before the server hears of it, so that the server never takes for done what
    // fails here. While it is being made durable the server repeats its last block; where it gives
    // up before that, it has lost nothing but the knowledge.
    if (const int error = file->commit())
        return session.fail_at_file(error);
    session.send(acknowledgement(block));
    session.dally(block);
    return {};
}

Outcome send(const sockaddr_in &server, const Limits &limits, const std::string &name, int file,
             uint64_t size) {
    Session session(server, limits);
    if (!session.request(Opcode::write_request, name, size))
        return session.outcome();
    const std::size_t block_size = session.agreement().block_size;
    std::string packet(header_size + block_size, '\0');
    std::size_t length = block_size;
    for (uint16_t block = 1; length == block_size; block = after(block)) {
        length = static_cast<std::size_t>(std::min<uint64_t>(size, block_size));
        size -= length;
        write_header(packet.data(), Opcode::data, block);
        if (const int error = read_all(file, packet.data() + header_size, length))
            return session.fail_at_file(error);
        session.send({packet.data(), header_size + length});
        // An acknowledgement that comes again answers nothing new: it must not bring the block
        // again.
        do {
            if (!session.next())
                return session.outcome();
        } while (!is(session.packet(), Opcode::acknowledgement, block));
    }
    return {};
}

} // namespace ruma::tftp
