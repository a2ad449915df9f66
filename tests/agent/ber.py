"""SNMP packets made by hand: what no well-behaved tool sends, and answers byte for byte."""

import contextlib
import itertools
import socket
import time
from dataclasses import dataclass

INTEGER = 0x02
OCTET_STRING = 0x04
NULL = 0x05
OBJECT_ID = 0x06
SEQUENCE = 0x30
IP_ADDRESS = 0x40
COUNTER32 = 0x41
UNSIGNED32 = 0x42
TIME_TICKS = 0x43
OPAQUE = 0x44
COUNTER64 = 0x46
NO_SUCH_OBJECT = 0x80
NO_SUCH_INSTANCE = 0x81
END_OF_MIB_VIEW = 0x82

GET = 0xA0
GET_NEXT = 0xA1
RESPONSE = 0xA2
SET = 0xA3
GET_BULK = 0xA5
TRAP2 = 0xA7

V1 = 0
V2C = 1

NO_ERROR = 0
TOO_BIG = 1
NO_SUCH_NAME = 2
GEN_ERR = 5
WRONG_TYPE = 7
WRONG_LENGTH = 8
WRONG_VALUE = 10
INCONSISTENT_VALUE = 12
NOT_WRITABLE = 17

_request_ids = itertools.count(1)


def tlv(tag: int, content: bytes) -> bytes:
    """One element: tag, length, content."""
    size = len(content)
    if size < 0x80:
        return bytes([tag, size]) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + content


def integer(value: int, tag: int = INTEGER) -> bytes:
    """An INTEGER of any size, or another type that is encoded like one."""
    size = max(value, ~value).bit_length() // 8 + 1
    return tlv(tag, value.to_bytes(size, "big", signed=True))


def octets(content: bytes) -> bytes:
    return tlv(OCTET_STRING, content)


def address(text: str) -> bytes:
    return tlv(IP_ADDRESS, socket.inet_aton(text))


def null() -> bytes:
    return tlv(NULL, b"")


def arcs(text: str) -> tuple:
    return tuple(int(arc) for arc in text.strip(".").split("."))


def object_id(name: str) -> bytes:
    first, second, *rest = arcs(name)
    content = b""
    for arc in (first * 40 + second, *rest):
        group = bytes([arc & 0x7F])
        while arc := arc >> 7:
            group = bytes([arc & 0x7F | 0x80]) + group
        content += group
    return tlv(OBJECT_ID, content)


def binding(name: str, value: bytes) -> bytes:
    return tlv(SEQUENCE, object_id(name) + value)


class Request(bytes):
    """A request's packet, which knows the id that its answer must bear."""

    request_id: int


def message(kind, bindings, *, version=V2C, community=b"test", first=0, second=0) -> Request:
    """A request. `first` and `second` are a GETBULK's non-repeaters and repetitions."""
    request_id = next(_request_ids)
    fields = integer(request_id) + integer(first) + integer(second)
    pdu = tlv(kind, fields + tlv(SEQUENCE, b"".join(bindings)))
    packet = Request(tlv(SEQUENCE, integer(version) + octets(community) + pdu))
    packet.request_id = request_id
    return packet


def _split(data: bytes):
    """The first element of `data`, as tag and content, and what follows it."""
    tag, size, start = data[0], data[1], 2
    if size & 0x80:
        start += size & 0x7F
        size = int.from_bytes(data[2:start], "big")
    assert start + size <= len(data), "an element runs over the end of its packet"
    return tag, data[start : start + size], data[start + size :]


def _elements(data: bytes):
    while data:
        tag, content, data = _split(data)
        yield tag, content


def _name(content: bytes) -> str:
    numbers, arc = [], 0
    for byte in content:
        arc = arc << 7 | byte & 0x7F
        if not byte & 0x80:
            numbers.append(arc)
            arc = 0
    first = min(numbers[0] // 40, 2)
    return ".".join(map(str, (first, numbers[0] - 40 * first, *numbers[1:])))


@dataclass(frozen=True)
class Variable:
    """A variable of an answer."""

    name: str
    tag: int
    content: bytes

    @property
    def value(self):
        """An int, a str (object identifier, address) or bytes; None when there is no value."""
        if self.tag == INTEGER:
            return int.from_bytes(self.content, "big", signed=True)
        if self.tag in (COUNTER32, UNSIGNED32, TIME_TICKS, COUNTER64):
            return int.from_bytes(self.content, "big")
        if self.tag == OBJECT_ID:
            return _name(self.content)
        if self.tag == IP_ADDRESS:
            return socket.inet_ntoa(self.content)
        if self.tag in (NULL, NO_SUCH_OBJECT, NO_SUCH_INSTANCE, END_OF_MIB_VIEW):
            return None
        return self.content


@dataclass(frozen=True)
class Packet:
    """A received packet; `error` and `error_index` are those of an answer."""

    kind: int
    request_id: int
    error: int
    error_index: int
    variables: list


def parse(data: bytes) -> Packet:
    tag, content, rest = _split(data)
    assert tag == SEQUENCE and not rest
    (_, _), (_, _), (kind, pdu) = _elements(content)
    (_, request_id), (_, error), (_, error_index), (_, bindings) = _elements(pdu)
    variables = []
    for _, pair in _elements(bindings):
        (_, name), (value_tag, value) = _elements(pair)
        variables.append(Variable(_name(name), value_tag, value))
    number = [
        int.from_bytes(field, "big", signed=True) for field in (request_id, error, error_index)
    ]
    return Packet(kind, *number, variables)


class Sender:
    """Sends packets to an agent from a socket of its own."""

    def __init__(self, host: str, port: int):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self._socket.connect((host, port))

    def close(self) -> None:
        self._socket.close()

    def send(self, packet: bytes) -> None:
        self._socket.send(packet)

    def receive(self, request: Request, timeout: float = 5.0):
        """The next answer to a request, or None when none comes in time or nobody listens.

        Answers to other requests are discarded: they come late, after somebody gave up on them.
        """
        deadline = time.monotonic() + timeout
        with contextlib.suppress(TimeoutError, ConnectionRefusedError):
            while (left := deadline - time.monotonic()) > 0:
                self._socket.settimeout(left)
                packet = parse(self._socket.recv(65536))
                if packet.request_id == request.request_id:
                    return packet
        return None

    def exchange(self, request: Request, timeout: float = 5.0):
        self.send(request)
        return self.receive(request, timeout)

    def get(self, *names, timeout: float = 5.0, version=V2C):
        bindings = [binding(name, null()) for name in names]
        return self.exchange(message(GET, bindings, version=version), timeout)

    def get_next(self, *names, timeout: float = 5.0, version=V2C):
        bindings = [binding(name, null()) for name in names]
        return self.exchange(message(GET_NEXT, bindings, version=version), timeout)

    def get_bulk(self, *names, repetitions=10, timeout: float = 5.0):
        bindings = [binding(name, null()) for name in names]
        return self.exchange(message(GET_BULK, bindings, second=repetitions), timeout)

    def set(self, *pairs, timeout: float = 5.0, version=V2C):
        """SETs (name, value) pairs, the values as encoded by the procedures above."""
        bindings = [binding(name, value) for name, value in pairs]
        return self.exchange(message(SET, bindings, version=version), timeout)
