"""The watchdog restarts a service of which a request hangs."""

import fcntl
import os
import struct
import time

from client import Connection, Ended
from system import MACHINE, PLANAR, SERVICE, comes, configure, journal, main_process, restart, shown

WATCHDOG_SECONDS = 1
HUNG_SECONDS = 10 * WATCHDOG_SECONDS


class HeldBuses:
    """Locks the simulated buses: who uses one waits in the kernel, as at a driver that never returns."""

    def __enter__(self):
        self.file = os.open(MACHINE / "machine.state", os.O_RDWR)
        # type, from where, start, length (all), process
        fcntl.fcntl(self.file, fcntl.F_OFD_SETLK, struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
        return self

    def __exit__(self, *_):
        os.close(self.file)


def check(report):
    """watchdog"""
    configure()
    restart(f"WatchdogSec={WATCHDOG_SECONDS}")
    report.same("the unit has a watchdog", "1s", shown("WatchdogUSec"))
    pid = main_process()
    connection = Connection()
    report.check("a read", connection.read(PLANAR, 0, 16).done)
    time.sleep(3 * WATCHDOG_SECONDS)
    report.same("a service that is well is left alone", (pid, "0"), (main_process(), shown("NRestarts")))
    with HeldBuses():
        check_hung(report, pid)
    report.check("the new one reads", Connection().read(PLANAR, 0, 16).done)
    said = [line["MESSAGE"] for line in journal("-u", SERVICE, "-n", "60")]
    report.check("the journal says why", any("a request has been at work for 10 s" in line for line in said) and any(
        "Watchdog timeout" in line for line in said), said)


def check_hung(report, pid):
    hung = Connection()
    begun = time.monotonic()
    hung.send_read(PLANAR, 0, 16)
    other = Connection()
    report.check("others are served while a request hangs", all(other.location(0).done for _ in range(100)))
    report.check("the service is ended, and another one runs",
                 comes(lambda: main_process() not in (0, pid) and shown("SubState") == "running"), shown("SubState"))
    took = time.monotonic() - begun
    report.check(f"that took {took:.1f} s", took >= HUNG_SECONDS)
    report.same("restarts", "1", shown("NRestarts"))
    try:
        hung.receive()
        report.check("the client that waited is told by its connection's end", False, "it got a reply")
    except Ended as end:
        report.same("the client that waited is told by its connection's end", True,
                    str(end).startswith(("hung up", "receive")))
