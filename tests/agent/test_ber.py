"""The tests' own packets: what the others rely on."""

import socket

import ber
import pytest


@pytest.fixture(name="peer")
def fixture_peer():
    """A socket in the place of an agent."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
        peer.bind(("127.0.0.1", 0))
        peer.settimeout(5)
        yield peer


@pytest.fixture(name="sender")
def fixture_sender(peer):
    sender = ber.Sender(*peer.getsockname())
    yield sender
    sender.close()


def answer_to(request_id, error=ber.NO_ERROR):
    fields = ber.integer(request_id) + ber.integer(error) + ber.integer(0)
    pdu = ber.tlv(ber.RESPONSE, fields + ber.tlv(ber.SEQUENCE, b""))
    return ber.tlv(ber.SEQUENCE, ber.integer(ber.V2C) + ber.octets(b"test") + pdu)


@pytest.mark.parametrize(
    "value, size", [(0, 1), (127, 1), (128, 2), (-128, 1), (-129, 2), (2**31 - 1, 4), (-(2**31), 4)]
)
def test_an_integer_is_as_short_as_it_can_be(value, size):
    assert ber.integer(value) == bytes([ber.INTEGER, size]) + value.to_bytes(size, "big", signed=True)


def test_a_late_answer_is_not_taken_for_the_next_one(peer, sender):
    late, request = (ber.message(ber.GET, []) for _ in range(2))
    for packet in (late, request):
        sender.send(packet)
    _, address = peer.recvfrom(65536)
    peer.sendto(answer_to(late.request_id, ber.GEN_ERR), address)
    peer.sendto(answer_to(request.request_id), address)
    assert sender.receive(request).error == ber.NO_ERROR


def test_answers_to_other_requests_do_not_prolong_the_wait(peer, sender):
    late, request = (ber.message(ber.GET, []) for _ in range(2))
    sender.send(late)
    _, address = peer.recvfrom(65536)
    peer.sendto(answer_to(late.request_id), address)
    assert sender.exchange(request, timeout=0.05) is None


def test_nobody_listening_is_no_answer(peer, sender):
    peer.close()
    assert sender.get("1.3.6.1.2.1.1.3.0") is None
