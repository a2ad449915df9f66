// One transfer's exchange of packets with the server: the request, retransmission, limits of time.
#ifndef RUMA_HOST_TFTP_SESSION_H
#define RUMA_HOST_TFTP_SESSION_H

#include "tftp/options.h"
#include "tftp/outcome.h"
#include "tftp/packet.h"
#include "tftp/peer.h"

#include <chrono>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>

namespace ruma::tftp {

struct Limits {
    std::chrono::milliseconds silence{20'000};       // without progress
    std::chrono::milliseconds total{3'000'000};      // of a transfer
    std::chrono::milliseconds retransmission{1'000}; // the first; doubles up to four times that
};

// Those of the C interface. The time for silence is tftp_timeout_set's.
Limits &limits();

// A procedure that answers false has ended the transfer: outcome() says how, and the server has
// been told unless it knows. Any may throw std::bad_alloc.
class Session {
  public:
    Session(const sockaddr_in &server, const Limits &limits);

    // Asks for a transfer: with options first where they fit; without when the server refuses
    // those. True with the server's answer in packet(), an OACK read into agreement() included.
    bool request(Opcode opcode, const std::string &name, uint64_t size);

    const Agreement &agreement() const { return agreement_; }

    // Sends a packet that brings the transfer forward, and remembers it for retransmission.
    void send(std::string_view packet);

    // Waits for the next packet of the server, which may be any, and retransmits what was sent last
    // when its time has come.
    bool next();

    const Packet &packet() const { return *packet_; }

    // Answers a packet that the server sent for the second time. Its answer is repeated only when
    // the time for a retransmission has passed since: else one datagram that the network doubled
    // would double all that follow.
    void answer_again();

    // After the packet sent last: stays for a server whose last block may have been answered in
    // vain. Only where the network has lost or doubled something, for a little more than the time
    // in which the server would repeat that block; from a clean transfer the caller returns at
    // once.
    void dally(uint16_t block);

    // Each ends the transfer and tells the server.
    Outcome fail(ErrorCode code, Outcome outcome);
    Outcome fail_at_file(int error) { return fail(told_to_server(error), failed_at_file(error)); }
    Outcome fail_protocol(const char *text, ErrorCode code = ErrorCode::illegal_operation);

    const Outcome &outcome() const { return outcome_; }

  private:
    bool ask(Opcode opcode, std::string_view request, const Offer *offer);
    bool take_answer(const Offer *offer);
    bool answers(Opcode opcode) const;
    void transmit();
    bool await();
    bool in_time();

    sockaddr_in server_;
    const Limits limits_;
    const Clock::time_point end_;
    Agreement agreement_;
    Outcome outcome_;
    std::optional<Peer> peer_;
    std::optional<Packet> packet_;
    std::string sent_;
    int transmit_error_ = 0;
    Clock::time_point sent_at_;
    Clock::time_point progress_at_;
    Clock::time_point retransmit_at_;
    Clock::duration retransmission_{};
    bool disturbed_ = false; // something was lost or doubled
    bool options_refused_ = false;
};

} // namespace ruma::tftp

#endif
