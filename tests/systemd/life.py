"""Reload, stop and restart while clients are at work."""

import os
import threading
import time

import client
from client import Connection, Ended
from system import (FIRMWARE, MACHINE, PLANAR, SERVICE, comes, configure, journal, main_process, must, restart,
                    restart_again, run, shown)

WRITERS = 6
READERS = 8
PART = 2048  # bytes that each writer has
COPY_BYTES = 65536
BUSY = 0x80001609
DENIED = 0x80001601


class Worker(threading.Thread):
    """A client that asks again and again until it is told to stop or its connection ends; some then connect again."""

    def __init__(self, ask, reconnects=False):
        super().__init__(daemon=True)
        self.ask = ask
        self.reconnects = reconnects
        self.stopping = False
        self.replies = []
        self.ends = []
        self.asked = 0
        self.start()

    def run(self):
        while not self.stopping:
            try:
                self.serve(Connection())
            except Ended as end:
                self.ends.append(str(end))
            if not self.reconnects:
                return

    def serve(self, connection):
        while not self.stopping:
            self.asked += 1
            self.replies.append(self.ask(connection, self.asked))

    def end(self):
        self.stopping = True
        self.join()


def check_reload(report):
    """reload"""
    configure()
    restart()
    pid = main_process()
    connection = Connection()
    load = [Worker(lambda connection, _: connection.read(PLANAR, 0, 64).done) for _ in range(READERS)]
    wrong = []
    for turn in range(10):
        configure(mode="HWareMode" if turn % 2 else "FileMode")
        done = run("systemctl", "reload", SERVICE)
        wrong += [] if done.returncode == 0 and connection.location(0).done else [done.stderr]
    report.same("ten reloads with clients at work", [], wrong)
    for denied in (True, False) * 5:
        configure(service="max_payload = 512" if denied else "")
        must("systemctl", "reload", SERVICE)
        fresh = Connection()
        reply = fresh.write(PLANAR, 0x4000, bytes(1000))
        wrong += [] if reply.done != denied else [f"{reply.code:08X}"]
    report.same("what is new holds when the command ends, ten times", [], wrong)
    check_wrong_reload(report, connection)
    report.same("the process is the same", pid, main_process())
    for worker in load:
        worker.end()
    report.same("no connection was lost", [], [end for worker in load for end in worker.ends])
    report.check("every read was served", all(reply for worker in load for reply in worker.replies))
    report.check("the clients were at work", all(len(worker.replies) > 10 for worker in load))


def check_wrong_reload(report, connection):
    configure(service='max_clients = "many"')
    done = run("systemctl", "reload", SERVICE)
    report.check("a reload with a wrong configuration fails", done.returncode != 0)
    said = [line["MESSAGE"] for line in journal("-u", SERVICE, "-n", "20")]
    report.check("the journal names file, line and key",
                 any("/etc/kest/kest.toml:" in line and "key 'service.max_clients'" in line for line in said), said)
    report.same("the service goes on", ("active", "running"), (shown("ActiveState"), shown("SubState")))
    report.check("with the old one", connection.read(PLANAR, 0, 16).done)
    configure()
    must("systemctl", "reload", SERVICE)
    report.check("and the next reload is done", connection.read(PLANAR, 0, 16).done)


def pattern(writer, turn, length):
    """Bytes of which each says who wrote them, and when."""
    return bytes([writer << 4 | turn % 16]) * length


def finished(workers):
    """Waits until a request of each worker was done."""
    return comes(lambda: all(any(reply.done for reply in worker.replies) for worker in workers))


def check_stop(report):
    """stop with writes to a device in flight"""
    configure(clock="real")
    restart()
    workers = [Worker(lambda connection, turn, writer=writer: connection.write(FIRMWARE, writer * PART,
                                                                               pattern(writer, turn, PART)))
               for writer in range(WRITERS)]
    report.check("all clients write", finished(workers))
    begun = time.monotonic()
    must("systemctl", "stop", SERVICE)
    took = time.monotonic() - begun
    for worker in workers:
        worker.join()
    report.same(f"it ends in good order, in {took:.1f} s", ("inactive", "success"),
                (shown("ActiveState"), shown("Result")))
    lost = [worker.asked - len(worker.replies) for worker in workers]
    report.check("each request is answered, but for those that came too late", all(count <= 1 for count in lost), lost)
    codes = {reply.code for worker in workers for reply in worker.replies if not reply.done}
    report.check("with success, or that the device is busy", codes <= {BUSY}, [f"{code:08X}" for code in codes])
    check_parts(report, workers, (MACHINE / "firmware.bin").read_bytes())


def check_parts(report, workers, data):
    torn = []
    for writer, worker in enumerate(workers):
        part = data[writer * PART:(writer + 1) * PART]
        done = [turn for turn, reply in enumerate(worker.replies, 1) if reply.done]
        if part != pattern(writer, done[-1], PART):
            torn.append((writer, sorted(set(part)), done[-1], worker.asked))
    report.same("each part holds the last write that was done, whole", [], torn)


def check_stop_of_copies(report):
    """stop with writes to a copy in flight"""
    os.remove("/var/lib/kest/qorn/P3_Root/0")
    configure()
    restart()
    must("kestctl", "copy", "capture", "copied", "--yes")
    must("chown", "-R", "kest:kest", "/var/lib/kest/qorn")
    configure(mode="FileMode")
    must("systemctl", "reload", SERVICE)
    workers = [Worker(lambda connection, turn, writer=writer: connection.write(FIRMWARE, 0,
                                                                               pattern(writer, turn, COPY_BYTES)))
               for writer in range(WRITERS)]
    report.check("all clients write", finished(workers))
    must("systemctl", "stop", SERVICE)
    for worker in workers:
        worker.join()
    must("kestctl", "copy", "export", "copied", "/tmp/exported")
    with open("/tmp/exported", "rb") as file:
        data = file.read()
    report.same("the copy holds one write, whole", (COPY_BYTES, 1), (len(data), len(set(data))))
    lost = [worker.asked - len(worker.replies) for worker in workers]
    report.check("each request is answered, but for those that came too late", all(count <= 1 for count in lost), lost)
    report.check("and was done", all(reply.done for worker in workers for reply in worker.replies))


def check_restart(report):
    """restart under load"""
    configure()
    restart()
    socket_file = os.stat(client.SOCKET).st_ino
    expected = (MACHINE / "system.bin").read_bytes()[:1024]
    workers = [Worker(lambda connection, _: connection.read(PLANAR, 0, 1024), reconnects=True)
               for _ in range(READERS)]
    processes = {main_process()}
    for _ in range(5):
        before = [len(worker.replies) for worker in workers]
        report.check("all clients read", comes(lambda before=before: all(
            len(worker.replies) > count for worker, count in zip(workers, before))))
        restart_again()
        processes.add(main_process())
    before = [len(worker.replies) for worker in workers]
    report.check("all clients read after the last restart", comes(lambda: all(
        len(worker.replies) > count for worker, count in zip(workers, before))))
    for worker in workers:
        worker.end()
    report.same("five restarts made five processes more", 6, len(processes))
    replies = [reply for worker in workers for reply in worker.replies]
    report.same(f"of {len(replies)} reads none has wrong data", 0,
                sum(not reply.done or reply.payload != expected for reply in replies))
    ends = [end for worker in workers for end in worker.ends]
    report.check("each process ended its connections, and nobody was turned away", len(ends) >= READERS and not [
        end for end in ends if end.startswith("connect")], ends)
    report.same("the socket is the same", socket_file, os.stat(client.SOCKET).st_ino)
