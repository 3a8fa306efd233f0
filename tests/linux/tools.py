"""kestctl on a board: the width proof, undo, interruption, locks, drivers, the kernel's mux, buses and init."""

import hashlib
import json
import random
import re

from emulator import boot, eeprom, sensor
from prepare import NEW_BYTES
from toolsteps import STEPS

PART_BYTES = 65536
DRIVEN_BYTES = 32768
PAGE_BYTES = 128
INTERRUPTED = {"interrupt": 40, "terminate": 25, "hangup": 3}  # the page before which the signal came
PAGES_UNDER_WAY = 16
MANY_BYTES = 16384  # of the writes that are interrupted
MEMORIES = "1C0002 2C0032 2C0064 2C0128 2C0256 2C0512"
INIT_ROWS = {0x48: ("75 92", "address", False), 0x49: ("", "none", False), 0x51: ("1C0002", "proof", True),
             0x52: (MEMORIES, "address", False), 0x53: (MEMORIES, "address", False), 0x54: ("2C0256", "kernel", True),
             0x55: (MEMORIES, "address", False), 0x60: ("9551 9552", "address", False), 0x70: ("", "none", False)}


def at(before, offset, data):
    return before[:offset] + data + before[offset + len(data):]


def shown(data, piece):
    """As i2ctransfer prints bytes, a line for each piece."""
    return "".join(" ".join(f"0x{byte:02x}" for byte in data[start:start + piece]) + "\n"
                   for start in range(0, len(data), piece))


def digest(data):
    return hashlib.sha256(shown(data, 4096).encode()).hexdigest()


class Steps:
    """The exit code, text and JSON of each step; digests and facts by their names."""

    def __init__(self, lines):
        self.codes, self.texts, self.digests, self.facts = {}, {}, {}, {}
        for line in lines:
            kind, _, rest = line.partition(" ")
            name, _, value = rest.partition(" ")
            if kind == "step":
                self.codes[name] = int(value)
            elif kind == "said":
                self.texts[name] = self.texts.get(name, "") + value + "\n"
            elif kind in ("digest", "fact"):
                (self.digests if kind == "digest" else self.facts)[name] = value

    def text(self, name):
        return self.texts.get(name, "")

    def json(self, name):
        """The step's JSON, or an empty object if there is none."""
        text = self.text(name)
        try:
            return json.JSONDecoder().raw_decode(text[text.index("{"):])[0]
        except ValueError:
            return {}


def check_steps(board, steps, report):
    for step in STEPS:
        code, text = steps.codes.get(step.name), steps.text(step.name)
        wanted, says = step.expected(board)
        missing = [each for each in says if not re.search(each, text, re.MULTILINE)]
        report.check(f"{step.name}: {step.what}", code == wanted and not missing,
                     f"exit code {code} for {wanted}, not said {missing}, said {text!r}")


def check_digests(steps, wanted, report):
    for name, data in wanted.items():
        report.check(f"{name}: another program reads the bytes that must be there",
                     steps.digests.get(name) == digest(data), "other bytes")


def check_interrupted(steps, before, report):
    """What a command says of its interrupted write must be what another program then reads."""
    for name, page in INTERRUPTED.items():
        told = re.search(r"(\d+) of 16384 bytes are written and verified; 'kestctl seeprom restore \S+' puts",
                         steps.text(name))
        count = int(told.group(1)) if told else -1
        before_signal = (page - 1) * PAGE_BYTES
        report.check(f"{name}: ends at most 16 pages later",
                     before_signal <= count <= before_signal + PAGES_UNDER_WAY * PAGE_BYTES, count)
        report.check(f"{name}: another program reads what the command says",
                     count > 0 and steps.digests.get(name) == digest(at(before, 0, NEW_BYTES[:count])), count)


def check_label(steps, report):
    """The part with one offset byte, as another program reads it before and after."""
    before = steps.facts.get("label", "")
    report.check("label: a display's own bytes", before.startswith("0x00 0xff 0xff 0xff 0xff 0xff 0xff 0x00 "), before)
    report.check("label: the same bytes afterwards", before != "" and steps.facts.get("label-after") == before,
                 steps.facts.get("label-after"))
    return bytes(int(byte, 16) for byte in before.split())


def split_wires(transactions):
    """Messages, whether a controller keeps the chips' transaction over a repeated START or not."""
    return [message for text in transactions for message in text.split()]


def split_messages(texts):
    """Messages, whether a controller keeps the chips' transaction over a repeated START or not."""
    return [message for text in texts for message in text.split()]


def check_wires(run, label, report):
    """What the chips saw of commands that must not write."""
    seen = {address: split_messages(texts) for address, texts in run.wires().items()}
    kept = seen.get(0x52, [])
    written = [message for message in kept if re.fullmatch(r"W\w{5,}", message)]
    report.check("kept: the chip saw reads, and never data", len(kept) > 100 and not written, written[:3] or len(kept))
    offsets = [bytes.fromhex(message[1:]) for message in seen.get(0x51, []) if message.startswith("W")]
    # the one write of the right width: a byte at 8
    longer = [offset for offset in offsets if len(offset) > 1 and offset != b"\x08\x5a"]
    others = [offset.hex() for offset in longer if offset[1:] != label[offset[0]:offset[0] + 1]]
    report.check("label: a second offset byte is the byte that the part holds there", longer and not others, others)
    for address, what in ((0x60, "leds"), (0x48, "sensor")):
        messages = set(seen.get(address, []))
        report.check(f"{what}: init sends no byte to it", messages and messages <= {"W", "R1"}, messages)


def check_buses(steps, report):
    buses = {bus.get("number"): bus for bus in steps.json("buses").get("buses", [])}
    bus = buses.get(1, {})
    name = steps.facts.get("name")
    report.check("buses: the adapter's name is the kernel's", name and bus.get("name") == name, (bus.get("name"), name))
    clock = steps.facts.get("clock", "")
    report.check("buses: the clock is the device tree's",
                 bus and bus["clock_hz"] == (int(clock, 16) if clock else None), (bus.get("clock_hz"), clock))
    report.check("buses: the adapter takes messages", "I2C messages" in bus.get("functions", []), bus.get("functions"))
    held = {device["address7"]: (device["name"], device["driver"]) for device in bus.get("devices", [])}
    wanted = {0x49: ("tmp105", "lm75"), 0x54: ("24c256", "at24"), 0x70: ("pca9548", "pca954x")}
    report.check("buses: parts and drivers that the kernel has", held == wanted, held)
    channel = buses.get(int(steps.facts.get("channel", "-1")), {})
    report.check("buses: a channel of the kernel's mux", channel.get("name") == "i2c-1-mux (chan_id 3)",
                 channel.get("name"))


def check_init(steps, report):
    found = [part for bus in steps.json("init-json").get("buses", []) for part in bus["parts"]]
    rows = {part["address7"]: (" ".join(part["types"]), part["source"], part["ready"]) for part in found
            if part["state"] != "uncertain"}  # where an adapter reports a missing acknowledge as a time-out
    for address, row in INIT_ROWS.items():
        report.check(f"init: 0x{address:02x} is {row}", rows.get(address) == row, rows.get(address))
    report.check("init: finds nothing else", set(rows) == set(INIT_ROWS), [hex(address) for address in rows])
    places = {device.get("text") for device in steps.json("init-devices").get("devices", [])}
    report.check("init: its file is a device table of the rows that are ready",
                 places == {"/dev/i2c-1,L,1C0002,A2", "/dev/i2c-1,L,2C0256,A8"}, places)


def contents(board):
    chance = random.Random(board + " tools")
    images = {name: chance.randbytes(PART_BYTES) for name in ("kept", "work", "behind")}
    return images | {"driven": chance.randbytes(DRIVEN_BYTES), "blank": b"\xff" * PART_BYTES}


def check_bytes(run, steps, images, report):
    work, behind = images["work"], images["behind"]
    written = at(work, 1000, NEW_BYTES[:5000])
    last = at(work, 0, NEW_BYTES[:MANY_BYTES])
    blank = at(images["blank"], 0x1234, b"\x11\x22\x33\x44")
    check_digests(steps, {
        "kept": images["kept"], "kept-after": images["kept"], "blank-as-one": images["blank"], "blank": blank,
        "table": work, "write": written, "undo": work, "redo": written, "interrupt-undo": work, "terminate-undo": work,
        "hangup-undo": work, "two": at(last, 0x200, b"\xa1\xa2\xa3\xa4"), "mux-refused": behind,
        "mux-write": at(behind, 100, NEW_BYTES[:300]), "mux-undo": behind}, report)
    check_interrupted(steps, work, report)
    driven = hashlib.sha256(images["driven"]).hexdigest()
    report.check("driven: the kernel's driver reads the old bytes", steps.facts.get("driven") == driven,
                 steps.facts.get("driven"))
    for name, data in run.images.items():
        wanted = {"work": last, "blank": blank}.get(name, images[name])
        report.check(f"image file {name}.bin holds what was written and nothing else", run.ended and data == wanted,
                     "other bytes" if run.ended else "the checks did not end")


def check(board, armhf, kernel, report):
    images = contents(board)
    chips = [{"device": "i2c-ddc,address=0x51"}, eeprom("kept", 0x52, PART_BYTES), eeprom("work", 0x53, PART_BYTES),
             eeprom("driven", 0x54, DRIVEN_BYTES), eeprom("blank", 0x55, PART_BYTES),
             {"device": "pca9552,address=0x60"}, sensor("sensor", 0x48), sensor("twin", 0x49),
             {"device": "pca9548,id=mux,address=0x70"},
             eeprom("behind", 0x56, PART_BYTES) | {"behind": "/mux/i2c.3"}]
    run = boot(board, "tools", armhf, kernel, images, chips)
    report.heading(board, run, "tools")
    steps = Steps(run.lines)
    check_steps(board, steps, report)
    check_bytes(run, steps, images, report)
    check_wires(run, check_label(steps, report), report)
    check_buses(steps, report)
    check_init(steps, report)
