"""Reads, failures and their entries inside the sandbox: on the simulated machine, on copies, and in the journal."""

from client import Connection
from system import (BEHIND_HUB, FIRMWARE, MACHINE, PLANAR, SERVICE, configure, entry, fault, journal, main_process,
                    must, restart, run)

COPY = "/var/lib/kest/qorn/P3_Root/0"

LIBRARY = "91c132395bfcd6c71a39c3ee03905a2d"
COPIES = "cc03b569f6e929cfa1dcf9b7f6027c4b"
REFUSED = "640afc2901f98a070a83971ce3e719d1"


def image(name, length, offset=0):
    return (MACHINE / name).read_bytes()[offset:offset + length]


def check_reads(report):
    """reads and writes of the simulated machine"""
    configure()
    restart()
    connection = Connection()
    report.same("a read", image("system.bin", 256), connection.read(PLANAR, 0, 256).payload)
    report.same("a read behind a hub", image("riser.bin", 100, 7), connection.read(BEHIND_HUB, 7, 100).payload)
    report.same("the largest read", image("firmware.bin", 65536), connection.read(FIRMWARE, 0, 65536).payload)
    data = bytes(range(200))
    for device, name in ((PLANAR, "system.bin"), (BEHIND_HUB, "riser.bin")):
        report.check(f"a write to {name}", connection.write(device, 0x300, data).done)
        report.same("is in its image", data, image(name, 200, 0x300))


def fails(report, what, reply, device):
    """One failed request. Returns its entry."""
    found = entry(reply.log_id)
    if report.check(f"{what} fails and leaves an entry", not reply.done and reply.log_id and found,
                    f"code {reply.code:08X}, log id {reply.log_id:08X}"):
        report.same("of kestd, about the device", ("kestd", device), (found["process"], found.get("device")))
    return found


def check_failures(report):
    """failing requests of the simulated machine"""
    connection = Connection()
    for words, device, write in ((("nack", "--address", "0xA0"), PLANAR, False),
                                 (("nack-data", "--address", "0xA0", "--byte", "3"), PLANAR, True),
                                 (("hold-sda", "--value", "100"), PLANAR, False),
                                 (("hold-scl", "--value", "100"), PLANAR, True),
                                 (("stuck-write-cycle", "--address", "0xA0"), PLANAR, True),
                                 (("gone",), PLANAR, False),
                                 (("hub-silent",), BEHIND_HUB, False),
                                 (("hub-hold-scl", "--value", "100"), BEHIND_HUB, True)):
        fault(*words)
        reply = connection.write(device, 0, b"kest") if write else connection.read(device, 0, 16)
        fails(report, f"{'write' if write else 'read'} with {words[0]}", reply, device)
        fault()
    report.same("then it reads as before", image("system.bin", 16), connection.read(PLANAR, 0, 16).payload)
    report.same("the log belongs to the service", "kest", (MACHINE.parent / "errors.db").owner())


def check_copies(report):
    """reads and failures of copies"""
    must("kestctl", "copy", "capture", "copied", "--yes")
    must("chown", "-R", "kest:kest", "/var/lib/kest")
    configure(mode="FileMode")
    must("systemctl", "reload", SERVICE)
    connection = Connection()
    report.same("a read", image("firmware.bin", 256), connection.read(FIRMWARE, 0, 256).payload)
    report.check("a write", connection.write(FIRMWARE, 5, b"copied").done)
    report.same("is read back", b"copied", connection.read(FIRMWARE, 5, 6).payload)
    report.check("the device has not been written", image("firmware.bin", 6, 5) != b"copied")
    fails(report, "a read past the copy's end", connection.read(FIRMWARE, 70000, 4), FIRMWARE)
    with open(COPY, "r+b") as copy:
        copy.seek(30000)
        byte = copy.read(1)
        copy.seek(30000)
        copy.write(bytes([byte[0] ^ 1]))
    found = fails(report, "a read of a damaged copy", connection.read(FIRMWARE, 29000, 2000), FIRMWARE)
    report.same("and says so", 0x1407, found["reason"] if found else None)
    report.check("a block beside it is served", connection.read(FIRMWARE, 0, 16).done)


def check_journal(report):
    """entries in the journal"""
    configure(service='raw_users = ["root"]')
    must("systemctl", "reload", SERVICE)
    connection = Connection()
    fault("nack", "--address", "0xA0")
    reply = connection.read(PLANAR, 0, 16)
    fault()
    found = journal("-u", SERVICE, f"KEST_LOG_ID=0x{reply.log_id:08X}")
    if report.same("one for a failed read", 1, len(found)):
        line = found[0]
        report.same("log id, kind, priority, device, component",
                    (f"0x{reply.log_id:08X}", LIBRARY, "3", PLANAR, "0x1300"),
                    tuple(line.get(name) for name in ("KEST_LOG_ID", "MESSAGE_ID", "PRIORITY", "KEST_DEVICE",
                                                      "KEST_COMPONENT")))
        report.same("reason and return code are those of the log and of the reply",
                    (f"0x{entry(reply.log_id)['reason']:04X}", f"0x{reply.code:08X}"),
                    (line.get("KEST_REASON"), line.get("KEST_RETURN_CODE")))
        report.same("the journal itself knows process and unit", (str(main_process()), SERVICE, "kestd"),
                    (line.get("_PID"), line.get("_SYSTEMD_UNIT"), line.get("SYSLOG_IDENTIFIER")))
        report.check("the message is for people", PLANAR in line["MESSAGE"], line["MESSAGE"])
    report.same("one for the user who was refused", "user", next(
        (line["MESSAGE"].split()[0] for line in journal("-u", SERVICE, f"MESSAGE_ID={REFUSED}")), None))
    report.same("one for the damaged copy", ["0x1407"],
                sorted({line["KEST_REASON"] for line in journal(f"MESSAGE_ID={COPIES}")} & {"0x1407"}))
    hostile = "sim:planar\nPRIORITY=0\nKEST_FORGED=1,L,2C0256,A0"
    reply = connection.read(hostile, 0, 4)
    found = journal("-u", SERVICE, f"KEST_LOG_ID=0x{reply.log_id:08X}")
    report.same("a text with line ends makes no fields of its own", [("3", None)],
                [(line.get("PRIORITY"), line.get("KEST_FORGED")) for line in found])
    run("kestctl", "seeprom", "read", "/dev/i2c-99,L,2C0256,A0", "--length", "4")
    report.same("none for a command at a terminal", [], journal("_COMM=kestctl"))
