"""The same work by kest, by the kernel's at24 driver and by i2c-tools: a table of what each costs.

Transactions, messages and bytes are counted by the kernel's trace events, and compared with what the chips saw. The
instructions are those of the programs in user mode, counted by the emulated processor. Wire time is reckoned.
"""

import hashlib
import random
import re

from emulator import boot, eeprom, sensor
from prepare import NEW_BYTES, call

BOARD = "ast2600-evb"  # its processor has counters, and its controller keeps a transaction over a repeated START
PART_BYTES = 32768
BIT_US = 10  # of a bus at 100 kHz
MARK = (0x4A, "W4b")

# work, who does it, transactions, messages, bytes behind the addresses; these are not fixed where a width proof decides
ROWS = [
    ("read-256", "driver", 2, 4, 260),
    ("read-256", "i2ctransfer", 1, 2, 258),
    ("read-256", "library", 1, 2, 258),
    ("read-256", "kestctl", 1, 2, 258),
    ("read-all", "driver", 256, 512, 33280),
    ("read-all", "i2ctransfer", 4, 8, 32776),
    ("read-all", "library", 12, 24, 32792),
    ("read-all", "kestctl", 16, 32, 32800),
    ("write-256", "driver", 4, 4, 264),
    ("write-256", "driver-plain", 256, 256, 768),
    ("write-256", "i2ctransfer", 4, 4, 264),
    ("write-256", "library", 5, 5, 265),
    ("write-256", "kestctl-plain"),
    ("write-256", "kestctl"),
]
STARTS = ["dd", "i2ctransfer", "library", "kestctl"]
# of the pages that are written to each part
PLACES = {"layer": (0x2000, 0x3000, 0x4000, 0x5000), "driver": (0x1000,), "plain": (0x1000,)}


def add_nodes(tree):
    """Tells the kernel of the processor's counters, which the board's device tree leaves out, and of a memory part with
    its page size: without that the driver writes byte by byte."""
    part = "/ahb/apb/bus@1e78a000/i2c-bus@100/eeprom@54"
    for node, compatible in (("/pmu", "arm,cortex-a7-pmu"), (part, "atmel,24c256")):
        call("fdtput", "-c", tree, node)
        call("fdtput", "-t", "s", tree, node, "compatible", compatible)
    call("fdtput", "-t", "i", tree, part, "reg", 0x54)
    call("fdtput", "-t", "i", tree, part, "pagesize", 64)


def sections(transactions):
    """The transactions behind each mark."""
    found = []
    for one in transactions:
        if one == MARK:
            found.append([])
        elif found:
            found[-1].append(one[1])
    return found


def seen_by_chips(texts):
    """Transactions, messages and bytes."""
    messages = [message for text in texts for message in text.split()]
    lengths = [int(message[1:]) if message[0] == "R" else len(message[1:]) // 2 for message in messages]
    return len(texts), len(messages), sum(lengths)


def wire_ms(transactions, messages, length):
    """A START and an address for each message, nine bits for each byte, a STOP for each transaction."""
    return (messages * (1 + 9) + length * 9 + transactions) * BIT_US / 1000


def print_table(costs):
    print(f"\n  {'work':10} {'by':14} {'transactions':>12} {'messages':>9} {'bytes':>7} {'wire ms':>8} "
          f"{'instructions':>13}")
    for work, who in [("start", who) for who in STARTS] + [row[:2] for row in ROWS]:
        _, transactions, messages, length, instructions = costs[f"{work}-{who}"]
        print(f"  {work:10} {who:14} {transactions:12} {messages:9} {length:7} "
              f"{wire_ms(transactions, messages, length):8.1f} {instructions:13}")


def check(board, armhf, kernel, report):
    content = random.Random("compare").randbytes(PART_BYTES)
    chips = [eeprom("layer", 0x50, PART_BYTES), eeprom("driver", 0x54, PART_BYTES), eeprom("plain", 0x55, PART_BYTES),
             sensor("marker", 0x4A)]
    # Counting makes the emulator run one processor at a time. Two that wait for each other then hardly get on.
    run = boot(board, "compare", armhf, kernel, dict.fromkeys(PLACES, content), chips,
               emulator=("-icount", "shift=3"), kernel_words="maxcpus=1", tree=add_nodes)
    report.heading(board, run, "the same work by others")
    costs = {name: tuple(map(int, rest.split()))
             for name, rest in re.findall(r"cost (\S+) ([\d ]+)", "\n".join(run.lines))}
    names = [f"start-{who}" for who in STARTS] + [f"{work}-{who}" for work, who, *_ in ROWS]
    whole = [name for name in names if len(costs.get(name, ())) == 5 and costs[name][4] > 0]
    report.check("every command has run and was counted", whole == names, set(names) - set(whole))
    if whole != names:
        return
    seen = dict(zip(names, sections(run.transactions), strict=True))
    for name, texts in seen.items():
        report.check(f"{name}: the chips saw what the kernel counted", seen_by_chips(texts) == costs[name][1:4],
                     (seen_by_chips(texts), costs[name][1:4]))
    for work, who, *wanted in ROWS:
        cost = costs[f"{work}-{who}"]
        report.check(f"{work} by {who}: exit code and messages", cost[:len(wanted) + 1] == (0, *wanted), cost)
    for name in ("write-256-kestctl-plain", "write-256-kestctl"):
        pages = [text for text in seen[name] if re.fullmatch(r"W\w{132}", text)]
        report.check(f"{name}: each page is sent once", len(pages) == len(set(pages)) == 4, pages)
    hashes = dict(re.findall(r"hash (\S+) (\w+)", "\n".join(run.lines)))
    for work, who, *_ in ROWS:
        if work.startswith("read"):
            wanted = hashlib.sha256(content[:256] if work == "read-256" else content).hexdigest()
            report.check(f"{work} by {who}: the part's bytes", hashes.get(f"{work}-{who}") == wanted, hashes)
    for name, places in PLACES.items():
        wanted = bytearray(content)
        for place in places:
            wanted[place:place + 256] = NEW_BYTES[:256]
        report.check(f"image file {name}.bin holds what was written and nothing else",
                     run.images[name] == bytes(wanted), "other bytes")
    print_table(costs)
