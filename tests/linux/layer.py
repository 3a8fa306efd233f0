"""The IIC layer on a board: bytes, errno, locks, and the fewest possible messages."""

import hashlib
import random
import re

from emulator import BOARDS, boot, eeprom, sensor

EEPROM_BYTES = 32768


def pattern(length, seed):
    """The bytes that the program on the board writes."""
    return bytes((index * 7 + seed) & 0xFF for index in range(length))


def at(before, offset, data):
    return before[:offset] + data + before[offset + len(data):]


def read_pieces(offset, length):
    """Transactions of a long read: 250 ms of wire time each. Neither board's device tree has a faster clock than 100
    kHz."""
    most = 2773
    return [f"W{offset + done:04x} R{min(most, length - done)}" for done in range(0, length, most)]


# What the chips must see of the program, transaction by transaction: written bytes in hexadecimal, the number of read
# ones.
def expected_wires(ends_at_restart):
    data = pattern(200, 17).hex()
    whole = read_pieces(0, EEPROM_BYTES)
    pages = [f"W00fe{data[:4]}", f"W0100{data[4:132]}", f"W0140{data[132:260]}", f"W0180{data[260:388]}",
             f"W01c0{data[388:]}"]
    question = ["R1"]  # probes whether the write cycle of the last page is over
    # kestctl shows its progress
    pieces = [piece for offset in range(0, EEPROM_BYTES, 4096) for piece in read_pieces(offset, 4096)]
    wires = {
        0x50: whole + pages + question + ["W00fe R200"]
        + question + question + ["W0000 R4"]  # detect state, sign of life after a reset, a read
        + question  # scan
        + pieces
        + question,  # kestctl scan
        0x60: ["W024b", "W02", "R1", "W02 R1", "W1611223344", "W16 R4", "W", "W"],
        0x48: ["W00 R2", "W", "W"],
    }
    return {address: " ".join(each).split() if ends_at_restart else each for address, each in wires.items()}


def check_lines(run, report):
    for line in run.lines:
        if line.startswith(("ok ", "FAIL ")):
            name, _, why = line[5:].partition(": ") if line.startswith("FAIL") else (line[3:], "", "")
            report.check(name, line.startswith("ok "), why)
    done = run.results.get("done", "")
    report.check("the program ran to its end", re.fullmatch(r"[1-9]\d* 0", done), done)


def check_bytes(run, before, report):
    results = run.results
    after = {"layer": at(before["layer"], 0xFE, pattern(200, 17)),
             "driver": at(at(at(before["driver"], 1000, pattern(300, 40)), 5000, pattern(90, 99)), 0x7000, b"\x5a")}
    digest = {name: hashlib.sha256(data).hexdigest()
              for name, data in (("before", before["layer"]), ("after", after["layer"]))}
    report.check("bytes read are the image file's", results.get("before") == digest["before"], results.get("before"))
    report.check("kestctl reads the image file as it is afterwards", results.get("after") == digest["after"],
                 results.get("after"))
    codes = (results.get("refused"), results.get("forced"))
    report.check("kestctl writes where a driver has the device only when forced", codes == ("3", "0"), codes)
    for name, data in run.images.items():
        report.check(f"image file {name}.bin holds what was written and nothing else", data == after[name],
                     "other bytes")


def check_wires(board, run, report):
    seen = run.wires()
    ends_at_restart = BOARDS[board]["ends_at_restart"]
    # at24 sends an offset and asks for 128 bytes in one call
    drivers = {"W0000", "R128"} if ends_at_restart else {"W0000 R128"}
    report.check("a repeated START of the kernel's driver shows as it does for the layer",
                 drivers <= set(seen.get(0x54, [])), seen.get(0x54))
    for address, wanted in expected_wires(ends_at_restart).items():
        report.check(f"messages to 0x{address:02X} are the fewest possible ({len(wanted)} transactions)",
                     seen.get(address) == wanted, f"\n    expected {wanted}\n    seen     {seen.get(address)}")


def check(board, armhf, kernel, report):
    chance = random.Random(board)
    before = {name: chance.randbytes(EEPROM_BYTES) for name in ("layer", "driver")}
    chips = [eeprom("layer", 0x50, EEPROM_BYTES), eeprom("driver", 0x54, EEPROM_BYTES),
             {"device": "pca9552,address=0x60"}, sensor("sensor", 0x48), sensor("twin", 0x49)]
    run = boot(board, "layer", armhf, kernel, before, chips)
    note = re.findall(r'note adapter "(.*)"', run.console)
    report.heading(board, run, "layer, adapter " + (note[0] if note else "?"))
    check_lines(run, report)
    check_bytes(run, before, report)
    check_wires(board, run, report)
    print("\n".join("  " + line[5:] for line in run.lines if line.startswith("scan ")))
