"""The booted system: commands, the unit of kestd, its configuration, the journal, and a report of checks."""

import json
import pathlib
import subprocess
import time

SERVICE = "kestd.service"
CONFIGURATION = pathlib.Path("/etc/kest/kest.toml")
MACHINE = pathlib.Path("/var/lib/kest/machine")
DROP_IN = pathlib.Path("/run/systemd/system/kestd.service.d/check.conf")
PATIENCE = 60  # seconds, for what must happen


class Report:
    def __init__(self):
        self.passed = 0
        self.failed = 0

    def heading(self, text):
        print(f"\n== {text}", flush=True)

    def check(self, what, good, found=""):
        self.passed += bool(good)
        self.failed += not good
        print(f"ok      {what}" if good else f"FAILED  {what}: {found}", flush=True)
        return good

    def same(self, what, expected, found):
        return self.check(what, expected == found, f"expected {expected!r}, found {found!r}")


def run(*words, **options):
    return subprocess.run(words, capture_output=True, text=True, check=False, timeout=2 * PATIENCE, **options)


def must(*words, **options):
    """Runs a command without which nothing further makes sense."""
    done = run(*words, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, words))}: {done.returncode} {done.stdout}{done.stderr}")
    return done.stdout


def shown(name):
    """A property of the service's unit."""
    return must("systemctl", "show", SERVICE, "--value", "-p", name).strip()


def main_process():
    return int(shown("MainPID"))


def comes(condition):
    """Waits until a condition holds. Returns whether it came to that."""
    until = time.monotonic() + PATIENCE
    while time.monotonic() < until:
        if condition():
            return True
        time.sleep(0.02)
    return False


def use_unit_lines(lines=""):
    """Has the unit of the service have these lines, too."""
    DROP_IN.unlink(missing_ok=True)
    if lines:
        DROP_IN.parent.mkdir(parents=True, exist_ok=True)
        DROP_IN.write_text("[Service]\n" + lines + "\n")
    must("systemctl", "daemon-reload")


def restart(lines=""):
    """Starts the service anew, with these lines for its unit."""
    must("systemctl", "stop", SERVICE)
    use_unit_lines(lines)
    run("systemctl", "reset-failed", SERVICE, "kestd.socket")
    must("systemctl", "start", SERVICE)


def configure(service="", mode="HWareMode", clock="fast"):
    """Writes the system's configuration: the simulated machine and its devices."""
    devices = (MACHINE / "kest.toml").read_text()
    devices = devices[devices.index("[[device]]"):]
    CONFIGURATION.write_text(f'[registry]\n"tavo/ReadMode" = "{mode}"\n'
                             f'[machine]\nfolder = "{MACHINE}"\ntime = "{clock}"\n'
                             f'[[device]]\nnumber = 0\nname = "copied"\nlocation = "{FIRMWARE}"\n'
                             f'[service]\n{service}\n' + without_firmware(devices))


FIRMWARE = "sim:planar,L,2C0512,A6"
PLANAR = "sim:planar,L,2C0256,A0"
BEHIND_HUB = "sim:planar,L,922,80,3,2C0128,A2"


def without_firmware(devices):
    """The device table without the device that number 0 has."""
    tables = devices.split("[[device]]")
    return "[[device]]".join(table for table in tables if FIRMWARE not in table)


def fault(*words):
    """Adds faults to the simulated machine; without words it is well again."""
    if words:
        must("kestctl", "sim", "fault", "add", *words)
    else:
        must("kestctl", "sim", "fault", "clear")
        must("kestctl", "sim", "power-cycle")


def restart_again():
    """Restarts the service, however often that was done in the last seconds."""
    run("systemctl", "reset-failed", SERVICE)
    must("systemctl", "restart", SERVICE)


def journal(*words):
    """Entries of the journal, as dictionaries; what was written before is there."""
    must("journalctl", "--sync")
    lines = must("journalctl", "-o", "json", "--no-pager", *words).splitlines()
    return [json.loads(line) for line in lines]


def entry(log_id):
    """The error log's entry with this log id; None when there is none."""
    found = run("kestctl", "--json", "errors", "show", f"0x{log_id:08X}")
    return json.loads(found.stdout) if found.returncode == 0 else None
