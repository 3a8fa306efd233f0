"""Client of kestd that sends requests without waiting for their replies (docs/message-protocol.md)."""

import socket
import struct

SOCKET = "/run/kest/kestd.socket"
PATIENCE = 30  # seconds; far more than a reply takes

READ = 0x8001
WRITE = 0x8002
LOCATION = 0x8004

HEADER = struct.Struct(">IHHBBHII")


class Ended(Exception):
    """The service hung up, or could not be reached."""


class Reply:
    def __init__(self, code, log_id, payload):
        self.code = code
        self.log_id = log_id
        self.payload = payload
        self.done = code == 0 and log_id == 0

    def text(self):
        return self.payload.decode(errors="replace")


class Connection:
    """One connection as the user of this process."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE)
        try:
            self.socket.connect(SOCKET)
        except OSError as error:
            raise Ended(f"connect: {error}") from error

    def send(self, kind, payload):
        try:
            self.socket.sendall(HEADER.pack(len(payload), 1, kind, 0, 1, 0, 0, 0) + payload)
        except OSError as error:
            raise Ended(f"send: {error}") from error

    def take(self, length):
        data = b""
        while len(data) < length:
            try:
                more = self.socket.recv(length - len(data))
            except OSError as error:
                raise Ended(f"receive: {error}") from error
            if not more:
                raise Ended("hung up")
            data += more
        return data

    def receive(self):
        size, _, _, _, _, _, code, log_id = HEADER.unpack(self.take(HEADER.size))
        return Reply(code, log_id, self.take(size))

    def send_read(self, device, offset, length):
        self.send(READ, struct.pack("=III", offset, 0, length) + device.encode() + b"\0")

    def read(self, device, offset, length):
        self.send_read(device, offset, length)
        return self.receive()

    def write(self, device, offset, data):
        self.send(WRITE, struct.pack("=III", offset, 0, len(data)) + device.encode() + b"\0" + data)
        return self.receive()

    def location(self, number):
        self.send(LOCATION, struct.pack("=II", number, 0))
        return self.receive()
