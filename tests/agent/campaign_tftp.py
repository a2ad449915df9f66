"""A TFTP server that serves many at once, and misbehaves as the name of the file tells it to."""

import contextlib
import socket
import threading

from tftp_server import ACK, DATA, ERROR, OACK, PORT, RRQ, WRQ

SUCCESS, INVALID_SOURCE, NO_MEMORY, DEVICE_FULL, TRANSFER_ERROR = 2, 5, 16, 12, 14
# What a copy ends with, by what the server does; an honest server does nothing.
MISBEHAVIOUR = {
    "slow": {SUCCESS},
    "double": {SUCCESS},  # every packet is sent twice
    "junk": {SUCCESS, TRANSFER_ERROR},  # there is rubbish between the packets
    "foreign": {SUCCESS},  # another port sends packets as well
    "plain": {SUCCESS},  # options are ignored
    "hold": {TRANSFER_ERROR},  # stops, and ends with an error when it is released
    "vanish": {TRANSFER_ERROR},  # closes its port in the middle
    "lie": {SUCCESS, TRANSFER_ERROR},  # grants a larger block than was asked for
    "absent": {INVALID_SOURCE},
    "full": {DEVICE_FULL, TRANSFER_ERROR},
    "refuse": {TRANSFER_ERROR},
}
TURNING_POINT = 3  # the block at which a server begins to misbehave that starts well


def behaviour_of(name):
    """The behaviour that a file's name asks for: "vanish-3" is vanish."""
    word = name.partition("-")[0]
    return word if word in MISBEHAVIOUR else "honest"


def _word(number):
    return (number & 0xFFFF).to_bytes(2, "big")


class MisbehavingTftp:
    """Sends files[name], and keeps in `received` what arrives."""

    def __init__(self, address, files):
        self.address = address
        self.files = files
        self.received = {}
        self._ended = threading.Event()
        self._released = threading.Event()
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((address, PORT))
        self._socket.settimeout(0.1)
        self._transfers = {}
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._ended.set()
        self._released.set()
        self._thread.join()
        for transfer in self._transfers.values():
            transfer.join()
        self._socket.close()

    def release(self):
        """Ends the transfers that are held up now."""
        former, self._released = self._released, threading.Event()
        former.set()

    def _serve(self):
        while not self._ended.is_set():
            with contextlib.suppress(TimeoutError):
                request = self._socket.recvfrom(65536)
                running = {key: each for key, each in self._transfers.items() if each.is_alive()}
                # A client asks again when it is not answered at once.
                if request not in running:
                    running[request] = threading.Thread(target=self._transfer, args=request)
                    running[request].start()
                self._transfers = running

    def _transfer(self, packet, client):
        kind = int.from_bytes(packet[:2], "big")
        name, _mode, *options = packet[2:].split(b"\0")[:-1]
        wanted = dict(zip(map(bytes.lower, options[::2]), options[1::2]))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as transfer:
            transfer.bind((self.address, 0))
            transfer.connect(client)
            transfer.settimeout(0.5)
            with contextlib.suppress(ConnectionRefusedError):
                _Transfer(self, transfer, name.decode("latin-1"), wanted).run(kind)

    def over(self):
        return self._ended.is_set()

    def held_up(self):
        """The event that ends holding up."""
        return self._released


class _Transfer:
    """One transfer, with the client's request behind it."""

    def __init__(self, server, connection, name, wanted):
        self._server = server
        self._connection = connection
        self._name = name
        self._size = 512
        self._options = b""
        self._behaviour = behaviour_of(name)
        if b"blksize" in wanted and self._behaviour != "plain":
            self._size = int(wanted[b"blksize"])
            granted = self._size + 8 * (self._behaviour == "lie")
            self._options = _word(OACK) + b"blksize\0%d\0" % granted
        self._begun = False  # the client knows this server's port

    def run(self, kind):
        first = {"absent": 1, "full": 3, "refuse": 2}.get(self._behaviour)
        if first is None and kind == RRQ and self._name not in self._server.files:
            first = 1
        if first is not None:
            self._error(first)
        elif kind == RRQ:
            self._send(self._server.files[self._name])
        elif kind == WRQ:
            self._receive()

    def _error(self, code):
        self._connection.send(_word(ERROR) + _word(code) + b"as its name wants\0")

    def _goes_on(self, block, is_last):
        """Deals with what is to happen at a block; returns whether the transfer goes on."""
        if block >= TURNING_POINT or is_last:
            if self._behaviour == "hold":
                self._server.held_up().wait()
                self._error(0)
            if self._behaviour in ("hold", "vanish"):
                return False
        if self._behaviour == "slow":
            self._server.held_up().wait(0.002)
        return not self._server.over()

    def _put(self, packet):
        if self._behaviour == "junk":
            for rubbish in (b"", b"\0", _word(9), _word(DATA), packet[:3], b"\xff" * 600):
                self._connection.send(rubbish)
        if self._behaviour == "foreign" and self._begun:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
                stranger.bind((self._server.address, 0))
                client = self._connection.getpeername()
                stranger.sendto(packet[:4] + b"!" * (len(packet) - 4), client)
                stranger.sendto(_word(ERROR) + _word(2) + b"a stranger's\0", client)
        for _ in range(1 + (self._behaviour == "double")):
            self._connection.send(packet)

    def _exchange(self, packet, kind, number):
        """Sends a packet, again and again, until the packet that answers it comes."""
        wanted = _word(kind) + _word(number)
        while not self._server.over():
            self._put(packet)
            with contextlib.suppress(TimeoutError):
                answer = self._connection.recv(65536)
                while answer[:4] != wanted:
                    if answer[:2] == _word(ERROR):
                        return None
                    answer = self._connection.recv(65536)
                self._begun = True
                return answer
        return None

    def _send(self, content):
        if self._options and self._exchange(self._options, ACK, 0) is None:
            return
        for start in range(0, len(content) + 1, self._size):
            block = start // self._size + 1
            packet = _word(DATA) + _word(block) + content[start : start + self._size]
            if not self._goes_on(block, len(packet) < self._size + 4):
                return
            if self._exchange(packet, ACK, block) is None:
                return

    def _receive(self):
        content, block = b"", 0
        answer = self._options or _word(ACK) + _word(0)
        packet = bytes(self._size + 4)
        while len(packet) == self._size + 4:
            block += 1
            packet = self._exchange(answer, DATA, block)
            if packet is None or not self._goes_on(block, len(packet) < self._size + 4):
                return
            content += packet[4:]
            answer = _word(ACK) + _word(block)
        self._server.received[self._name] = content
        self._put(answer)
