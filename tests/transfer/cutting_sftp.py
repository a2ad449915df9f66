"""An SFTP server that loses the end of a file and says nothing: what is read from or written to
places behind LIMIT bytes. Everything else is sftp-server's."""

import subprocess
import sys
import threading

LIMIT = 65536
READ, WRITE, STATUS = 5, 6, 101
OK, END_OF_FILE = 0, 1

server = subprocess.Popen(
    ["/usr/lib/openssh/sftp-server"], stdin=subprocess.PIPE, stdout=subprocess.PIPE
)
answering = threading.Lock()


def packets(stream):
    while length := stream.read(4):
        yield length, stream.read(int.from_bytes(length, "big"))


def send(stream, length, packet):
    stream.write(length + packet)
    stream.flush()


def answer(length, packet):
    with answering:
        send(sys.stdout.buffer, length, packet)


def status(request, code):
    """The answer to a request: a code, and neither a text nor its language."""
    packet = bytes([STATUS]) + request[1:5] + code.to_bytes(4, "big") + bytes(8)
    answer(len(packet).to_bytes(4, "big"), packet)


def pass_answers():
    for each in packets(server.stdout):
        answer(*each)


threading.Thread(target=pass_answers, daemon=True).start()
for size, request in packets(sys.stdin.buffer):
    if request[0] in (READ, WRITE):
        offset = 9 + int.from_bytes(request[5:9], "big")  # behind the handle
        if int.from_bytes(request[offset : offset + 8], "big") >= LIMIT:
            status(request, END_OF_FILE if request[0] == READ else OK)
            continue
    send(server.stdin, size, request)
server.stdin.close()
server.wait()
