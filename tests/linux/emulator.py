"""Boots an emulated board and gives back what it printed and what its chips saw."""

import json
import re
import shutil
import socket
import subprocess
import time

from prepare import WORK, call

MILLIDEGREES = 25500
BOOT_SECONDS = 1800  # for emulation on a busy machine; an idle one takes a minute at most
END = r"^KEST end\r?$"  # the last line

# device tree, console, how QEMU counts serial ports and names the bus that is /dev/i2c-1, the adapter's errno for a
# missing device, and whether the emulated controller ends the chips' transaction before a repeated START (checked in
# layer.py on what the kernel's own driver sends)
BOARDS = {
    "sabrelite": {"dtb": "imx6q-sabrelite", "console": "ttymxc1", "serial": ["-serial", "null"], "bus": "i2c-bus.1",
                  "missing": "ETIME", "state": 4, "ends_at_restart": True},
    "ast2600-evb": {"dtb": "aspeed-ast2600-evb", "console": "ttyS4", "serial": [], "bus": "aspeed.i2c.bus.1",
                    "missing": "ENXIO", "state": 0, "ends_at_restart": False},
}


def tree_nodes(tree, node):
    return call("fdtget", "-l", tree, node, capture_output=True, text=True).stdout.split()


def strip_device_tree(source, target):
    """Removes the board's own chips on its I2C buses: their drivers would probe for them."""
    shutil.copy(source, target)

    def walk(node):
        for child in tree_nodes(target, node):
            path = f"{node.rstrip('/')}/{child}"
            if re.match(r"i2c(-bus)?@", child):
                for chip in tree_nodes(target, path):
                    call("fdtput", "-r", target, f"{path}/{chip}")
            else:
                walk(path)

    walk("/soc" if "imx" in source.name else "/ahb/apb/bus@1e78a000")


class Monitor:
    """Sets the temperatures of the sensors through QEMU's monitor protocol, before the board starts."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        deadline = time.monotonic() + 60
        while self.socket.connect_ex(str(path)) != 0:
            if time.monotonic() > deadline:
                raise RuntimeError("no answer from QEMU")
            time.sleep(0.05)
        self.stream = self.socket.makefile("rw")
        self.stream.readline()
        self.ask("qmp_capabilities")

    def ask(self, command, **arguments):
        self.stream.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.stream.flush()
        while True:
            answer = json.loads(self.stream.readline())
            if "error" in answer:
                raise RuntimeError(answer["error"])
            if "return" in answer:
                return


def wait_for_end(machine, console):
    """Waits until the board has printed its last line or has stopped. Not every board can switch itself off."""
    deadline = time.monotonic() + BOOT_SECONDS
    while machine.poll() is None and time.monotonic() < deadline:
        if console.exists() and re.search(END, console.read_text(errors="replace"), re.MULTILINE):
            return
        time.sleep(0.2)


def eeprom(name, address, size):
    return {"device": f"at24c-eeprom,address={address:#x},rom-size={size},drive={name}"}


def sensor(name, address):
    return {"device": f"tmp105,id={name},address={address:#x}", "sensor": name}


def transactions(log):
    """Transactions in their order, each an address and a text such as "W0000 R16". QEMU calls a START for writing
    start, one for reading start_async."""
    found, under_way = [], {}
    for event, address, data in re.findall(r"^i2c_\w+ (\w+)\(addr:(0x\w+)\)(?: data:0x(\w+))?", log, re.MULTILINE):
        parts = under_way.setdefault(int(address, 16), [])
        if event == "start":
            parts.append(["W", ""])
        elif event == "start_async":
            parts.append(["R", 0])
        elif event == "send":
            parts[-1][1] += data
        elif event == "recv":
            parts[-1][1] += 1
        elif event == "finish" and parts:
            found.append((int(address, 16), " ".join(f"{way}{value}" for way, value in parts)))
            parts.clear()
    return found


class Run:
    """What a board printed, and its chips' transactions."""

    def __init__(self, console, log, seconds):
        self.console = console
        self.ended = bool(re.search(END, console, re.MULTILINE))
        self.lines = re.findall(r"^KEST (.*?)\r?$", console, re.MULTILINE)
        self.results = dict(line.split(" ", 1) for line in self.lines if " " in line)
        self.transactions = transactions(log)
        self.seconds = seconds

    def wires(self):
        """The transactions of each address."""
        found = {}
        for address, text in self.transactions:
            found.setdefault(address, []).append(text)
        return found


def boot(board, part, armhf, kernel, images, chips, *, emulator=(), kernel_words="", tree=None):
    """Runs a part of the checks on a board to its end.

    @param part      names the script, and the folder for consoles and logs
    @param images    content of each memory part by its name: a file of that name holds it afterwards
    @param chips     as eeprom() and sensor() describe them; "behind" is the way from the board's bus, if they are
                     behind a mux
    @param emulator  further options of QEMU
    @param kernel_words  further words of the kernel's command line
    @param tree      changes a device tree, called with its file
    """
    about = BOARDS[board]
    folder = WORK / f"{board}-{part}"
    folder.mkdir(parents=True, exist_ok=True)
    strip_device_tree(armhf / f"usr/lib/linux-image-{kernel}/{about['dtb']}.dtb", folder / "board.dtb")
    if tree:
        tree(folder / "board.dtb")
    arguments = (f"console={about['console']},115200 quiet panic=1 kest_part={part} kest_missing={about['missing']} "
                 f"kest_state={about['state']} {kernel_words}")
    command = ["qemu-system-arm", "-M", board, "-display", "none", "-no-reboot", "-S", "-monitor", "none",
               "-kernel", armhf / f"boot/vmlinuz-{kernel}", "-dtb", folder / "board.dtb", "-initrd", WORK / "ramfs.gz",
               "-append", arguments, *about["serial"], "-serial", f"file:{folder / 'console'}",
               "-qmp", f"unix:{folder / 'qmp'},server=on,wait=off", "-trace", "i2c_*", "-D", folder / "wires",
               *emulator]
    for name, content in images.items():
        (folder / f"{name}.bin").write_bytes(content)
        command += ["-drive", f"if=none,id={name},format=raw,file={folder / name}.bin"]
    for chip in chips:
        command += ["-device", f"{chip['device']},bus={about['bus']}{chip.get('behind', '')}"]
    for old in ("console", "qmp", "wires"):
        (folder / old).unlink(missing_ok=True)
    started = time.monotonic()
    machine = subprocess.Popen([str(part) for part in command])
    try:
        monitor = Monitor(folder / "qmp")
        for chip in chips:
            if "sensor" in chip:
                monitor.ask("qom-set", path=f"/machine/peripheral/{chip['sensor']}", property="temperature",
                            value=MILLIDEGREES)
        monitor.ask("cont")
        wait_for_end(machine, folder / "console")
    finally:
        machine.kill()
        machine.wait()
    run = Run((folder / "console").read_text(errors="replace"), (folder / "wires").read_text(),
              time.monotonic() - started)
    run.images = {name: (folder / f"{name}.bin").read_bytes() for name in images}
    return run
