"""A TFTP server whose pace and faults a test decides."""

import socket
import threading

RRQ, WRQ, DATA, ACK, ERROR, OACK = range(1, 7)
PORT = 69


class TftpServer:
    """Serves one transfer after the other from and into `files`.

    It stops before the block `hold_at` (counted from 1) of each transfer until release(), or sends
    the TFTP error `error_at[1]` in place of the block `error_at[0]`.
    """

    def __init__(self, host, files=None, hold_at=None, error_at=None):
        self.files = dict(files or {})
        self.requests = []
        self.held = threading.Event()
        self._released = threading.Event()
        self._hold_at = hold_at
        self._error_at = error_at
        self._host = host
        self._ended = threading.Event()
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((host, PORT))
        self._socket.settimeout(0.1)
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def release(self) -> None:
        self._released.set()

    def close(self) -> None:
        self._ended.set()
        self._released.set()
        self._thread.join()
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _serve(self) -> None:
        while not self._ended.is_set():
            try:
                packet, client = self._socket.recvfrom(65536)
            except TimeoutError:
                continue
            kind = int.from_bytes(packet[:2], "big")
            name, _mode, *options = packet[2:].split(b"\0")[:-1]
            if kind not in (RRQ, WRQ) or (client, kind) in self.requests:
                continue
            self.requests.append((client, kind))
            pairs = zip(options[::2], options[1::2])
            wanted = {key.decode().lower(): value for key, value in pairs}
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as transfer:
                transfer.bind((self._host, 0))
                transfer.connect(client)
                transfer.settimeout(0.2)
                try:
                    self._transfer(transfer, kind, name.decode(), wanted)
                except ConnectionRefusedError:
                    pass

    def _transfer(self, transfer, kind, name, options) -> None:
        if kind == RRQ and name not in self.files:
            self._error(transfer, 1)
            return
        size = 512
        greeting = ACK.to_bytes(2, "big") + bytes(2) if kind == WRQ else None
        if "blksize" in options:
            size = int(options["blksize"])
            greeting = OACK.to_bytes(2, "big") + b"blksize\0%d\0" % size
        if kind == RRQ:
            self._send(transfer, self.files[name], size, greeting)
        else:
            self._receive(transfer, name, size, greeting)

    @staticmethod
    def _error(transfer, code) -> None:
        transfer.send(ERROR.to_bytes(2, "big") + code.to_bytes(2, "big") + b"as the test wants\0")

    def _may_go_on(self, transfer, block) -> bool:
        """Deals with holding and failing at a block."""
        if self._error_at is not None and block == self._error_at[0]:
            self._error(transfer, self._error_at[1])
            return False
        if block == self._hold_at:
            self.held.set()
            self._released.wait()
        return not self._ended.is_set()

    def _exchange(self, transfer, packet, kind, number):
        """Sends a packet, again and again, until the packet that answers it comes."""
        wanted = kind.to_bytes(2, "big") + (number & 0xFFFF).to_bytes(2, "big")
        while not self._ended.is_set():
            transfer.send(packet)
            try:
                answer = transfer.recv(65536)
                while answer[:4] != wanted:
                    if answer[:2] == ERROR.to_bytes(2, "big"):
                        return None
                    answer = transfer.recv(65536)
                return answer
            except TimeoutError:
                continue
        return None

    def _send(self, transfer, content, size, greeting) -> None:
        if greeting is not None and self._exchange(transfer, greeting, ACK, 0) is None:
            return
        for start in range(0, len(content) + 1, size):
            block = start // size + 1
            if not self._may_go_on(transfer, block):
                return
            packet = DATA.to_bytes(2, "big") + (block & 0xFFFF).to_bytes(2, "big")
            packet += content[start : start + size]
            if self._exchange(transfer, packet, ACK, block) is None:
                return

    def _receive(self, transfer, name, size, answer) -> None:
        content = b""
        block = 0
        packet = b"\0" * (size + 4)
        while len(packet) == size + 4:
            block += 1
            if not self._may_go_on(transfer, block):
                return
            packet = self._exchange(transfer, answer, DATA, block)
            if packet is None:
                return
            content += packet[4:]
            answer = ACK.to_bytes(2, "big") + (block & 0xFFFF).to_bytes(2, "big")
        self.files[name] = content
        transfer.send(answer)
