"""The sandbox of the unit, as the service manager rates it and as the service's process has it."""

import os
import pathlib
import pwd

from system import SERVICE, configure, main_process, must, restart, run, shown

MOST_EXPOSURE = 1.0


def status(pid):
    lines = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines()
    return dict(line.split(":", 1) for line in lines)


def inside(pid, *words):
    """Runs a command with the service's mounts and as its user, but without its filters of system calls."""
    return run("nsenter", f"--target={pid}", "--mount", "setpriv", "--reuid=kest", "--regid=kest", "--init-groups",
               "--no-new-privs", *words)


def check(report):
    """the sandbox"""
    configure()
    restart()
    pid = main_process()
    rating = must("systemd-analyze", "security", "--no-pager", SERVICE).splitlines()[-1]
    exposure = float(rating.split(":")[1].split()[0])
    report.check(f"exposure by systemd-analyze security: {exposure}, at most {MOST_EXPOSURE}",
                 exposure <= MOST_EXPOSURE)
    check_rights(report, pid)
    check_files(report, pid)
    check_processes(report, pid)
    check_network(report, pid)


def check_rights(report, pid):
    kest = pwd.getpwnam("kest")
    found = status(pid)
    report.same("user and group: kest alone", ([str(kest.pw_uid)] * 4, [str(kest.pw_gid)] * 4),
                (found["Uid"].split(), found["Gid"].split()))
    report.same("no capabilities", {"0" * 16},
                {found[name].strip() for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")})
    report.same("no new privileges, and filters of system calls", ("1", "2"),
                (found["NoNewPrivs"].strip(), found["Seccomp"].strip()))
    report.same("no core files", "0", pathlib.Path(f"/proc/{pid}/limits").read_text(
        encoding="ascii").split("Max core file size")[1].split()[0])


def check_files(report, pid):
    for folder in ("/", "/etc", "/usr", "/var", "/var/lib", "/opt", "/run", "/etc/kest", "/sys", "/proc"):
        report.check(f"no writing in {folder}", inside(pid, "touch", f"{folder}/kest-trial").returncode != 0
                     and not os.path.exists(f"{folder}/kest-trial"))
    report.check("the whole tree is read-only, not only for this user", "Read-only" in run(
        "nsenter", f"--target={pid}", "--mount", "touch", "/etc/kest-trial").stderr)
    for folder in ("/var/lib/kest", "/var/tmp", "/run/lock/kest"):
        done = inside(pid, "sh", "-c", f"touch {folder}/kest-trial && rm {folder}/kest-trial")
        report.same(f"writing in {folder}", (0, ""), (done.returncode, done.stderr))
    report.check("no homes", inside(pid, "ls", "/root").returncode != 0)
    devices = shown("DeviceAllow")
    report.check("of devices, those of i2c", "char-i2c" in devices and shown("DevicePolicy") == "closed", devices)


def check_processes(report, pid):
    seen = inside(pid, "sh", "-c", "echo /proc/[0-9]*")
    processes = {int(path.rsplit("/", 1)[1]) for path in seen.stdout.split()}
    report.check("the service manager and root's processes are invisible",
                 1 not in processes and os.getpid() not in processes, processes)
    report.check("it sees itself", pid in processes, processes)
    report.check("of /proc nothing but processes", inside(pid, "cat", "/proc/meminfo").returncode != 0)


def check_network(report, pid):
    links = pathlib.Path(f"/proc/{pid}/net/dev").read_text(encoding="ascii").splitlines()[2:]
    report.same("no network but a loopback of its own", (["lo"], True),
                ([line.split(":")[0].strip() for line in links],
                 os.readlink(f"/proc/{pid}/ns/net") != os.readlink("/proc/self/ns/net")))
    report.same("and no addresses", {"0.0.0.0/0", "::/0"}, set(shown("IPAddressDeny").split()))
