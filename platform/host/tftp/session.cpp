#include "tftp/session.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace ruma::tftp {
namespace {

constexpr int max_backoff = 4;

// The server repeats a packet after this time if it agrees: often enough to fill a gap several
// times before this side gives up, seldom enough to bear a slow disk on either side.
unsigned wanted_timeout(const Limits &limits) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limits.silence / 10);
    return static_cast<unsigned>(std::clamp<long long>(seconds.count(), 1, 255));
}

// Errors by which servers refuse options; the others answer the request itself.
bool may_be_the_options(uint16_t code) {
    switch (static_cast<ErrorCode>(code)) {
    case ErrorCode::undefined:
    case ErrorCode::illegal_operation:
    case ErrorCode::options_refused:
        return true;
    default:
        return false;
    }
}

} // namespace

Session::Session(const sockaddr_in &server, const Limits &limits)
    : server_(server), limits_(limits), end_(Clock::now() + limits.total) {}

bool Session::request(Opcode opcode, const std::string &name, uint64_t size) {
    const Offer offer{.timeout = wanted_timeout(limits_), .size = size};
    std::string packet = tftp::request(opcode, name, options_of(offer));
    if (packet.size() <= max_request_size) {
        if (ask(opcode, packet, &offer))
            return true;
        if (!options_refused_)
            return false;
    }
    packet = tftp::request(opcode, name, {});
    if (packet.size() <= max_request_size)
        return ask(opcode, packet, nullptr);
    outcome_ = failed_here(ENAMETOOLONG);
    return false;
}

bool Session::ask(Opcode opcode, std::string_view request, const Offer *offer) {
    peer_.emplace(server_);
    int error = peer_->open();
    if (error == 0) {
        send(request);
        error = transmit_error_;
    }
    if (error != 0) {
        outcome_ = failed_here(error);
        outcome_.text = "The server cannot be reached: " + outcome_.text;
        return false;
    }
    while (await()) {
        if (answers(opcode)) {
            peer_->settle();
            return take_answer(offer);
        }
        peer_->turn_away();
    }
    return false;
}

bool Session::answers(Opcode opcode) const {
    switch (packet_->opcode) {
    case Opcode::data:
        return opcode == Opcode::read_request && packet_->number == 1;
    case Opcode::acknowledgement:
        return opcode == Opcode::write_request && packet_->number == 0;
    default:
        return true;
    }
}

bool Session::take_answer(const Offer *offer) {
    if (packet_->opcode == Opcode::error) {
        options_refused_ = offer != nullptr && may_be_the_options(packet_->number);
        outcome_ = failed_there(packet_->number, packet_->payload);
        return false;
    }
    if (packet_->opcode != Opcode::option_acknowledgement)
        return true;
    const auto agreed = offer != nullptr ? agree(*offer, packet_->payload) : std::nullopt;
    if (!agreed) {
        fail_protocol("it answered other options than asked for", ErrorCode::options_refused);
        return false;
    }
    agreement_ = *agreed;
    return true;
}

void Session::send(std::string_view packet) {
    sent_ = packet;
    retransmission_ = limits_.retransmission;
    transmit();
    progress_at_ = sent_at_;
}

// A packet that cannot be sent counts as lost.
void Session::transmit() {
    transmit_error_ = peer_->send(sent_);
    sent_at_ = Clock::now();
    retransmit_at_ = sent_at_ + retransmission_;
}

bool Session::next() {
    if (!await())
        return false;
    if (packet_->opcode != Opcode::error)
        return true;
    outcome_ = failed_there(packet_->number, packet_->payload);
    return false;
}

// Waits for a packet of the server's. Retransmits as next().
bool Session::await() {
    while (in_time()) {
        if (Clock::now() >= retransmit_at_) {
            disturbed_ = true;
            retransmission_ = std::min<Clock::duration>(2 * retransmission_,
                                                        max_backoff * limits_.retransmission);
            transmit();
        }
        const auto heard =
            peer_->receive(std::min({retransmit_at_, progress_at_ + limits_.silence, end_}));
        if (heard == Peer::Heard::closed) {
            outcome_ = failed_here(ECONNREFUSED);
            outcome_.text = "The server's port is closed";
            return false;
        }
        if (heard == Peer::Heard::silence)
            continue;
        packet_ = parse(peer_->datagram());
        if (packet_)
            return true;
    }
    return false;
}

bool Session::in_time() {
    const auto now = Clock::now();
    if (now < end_ && now - progress_at_ < limits_.silence)
        return true;
    Outcome outcome = failed_here(ETIMEDOUT);
    outcome.text = now < end_ ? sentence(outcome.result) : "The transfer took too long";
    fail(ErrorCode::undefined, std::move(outcome));
    return false;
}

void Session::answer_again() {
    disturbed_ = true;
    if (Clock::now() - sent_at_ >= limits_.retransmission)
        transmit();
}

void Session::dally(uint16_t block) {
    if (!disturbed_)
        return;
    const auto server_repeats =
        agreement_.timeout ? std::chrono::seconds(*agreement_.timeout) : limits_.retransmission;
    const auto until = std::min(end_, Clock::now() + server_repeats + limits_.retransmission / 2);
    while (peer_->receive(until) == Peer::Heard::datagram) {
        packet_ = parse(peer_->datagram());
        if (packet_ && packet_->opcode == Opcode::data && packet_->number == block)
            answer_again();
    }
}

Outcome Session::fail(ErrorCode code, Outcome outcome) {
    outcome_ = std::move(outcome);
    // Before it is settled, the server is not in a transfer that it could end.
    if (peer_->settled())
        peer_->send(error(code, outcome_.text));
    return outcome_;
}

Outcome Session::fail_protocol(const char *text, ErrorCode code) {
    Outcome outcome;
    outcome.result = -EPROTO;
    outcome.text = std::string("The server broke the protocol: ") + text;
    return fail(code, std::move(outcome));
}

} // namespace ruma::tftp
