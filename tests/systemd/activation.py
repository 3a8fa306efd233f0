"""The socket starts the service; who may use it."""

import os
import pathlib
import stat

import client
from client import Connection
from system import (MACHINE, PLANAR, SERVICE, comes, configure, journal, main_process, must, restart, run, shown,
                    use_unit_lines)

GATE = "/run/gate"


def contents(length):
    return (MACHINE / "system.bin").read_bytes()[:length]


def check(report):
    """activation and readiness"""
    configure()
    report.same("the socket listens though the service does not run", ["active", "inactive"],
                [must("systemctl", "show", unit, "--value", "-p", "ActiveState").strip()
                 for unit in ("kestd.socket", SERVICE)])
    facts = os.stat(client.SOCKET)
    report.same("the socket lets everybody connect, and belongs to root", (True, 0o666, 0),
                (stat.S_ISSOCK(facts.st_mode), stat.S_IMODE(facts.st_mode), facts.st_uid))
    report.same("the first request starts the service, and is answered", contents(64),
                Connection().read(PLANAR, 0, 64).payload)
    report.same("it runs as the user kest", ("active", "running", "kest"),
                (shown("ActiveState"), shown("SubState"), pathlib.Path(f"/proc/{main_process()}").owner()))
    check_readiness(report)
    check_wrong_start(report)


def check_readiness(report):
    """The service is started when it answers, not when its process is there."""
    os.mkfifo(GATE)
    os.chmod(GATE, 0o666)
    must("systemctl", "stop", SERVICE)
    # it waits at the gate before it is kestd
    use_unit_lines(f"ExecStart=\nExecStart=/bin/sh -c 'read line <{GATE}; exec /usr/bin/kestd'")
    must("systemctl", "start", "--no-block", SERVICE)
    early = Connection()
    early.send_read(PLANAR, 0, 16)
    report.check("a service that is not ready is 'activating'", comes(lambda: shown("SubState") == "start"),
                 shown("SubState"))
    early.socket.settimeout(0.5)
    try:
        early.receive()
        report.check("a request that came before waits", False, "it was answered")
    except client.Ended:
        report.check("a request that came before waits", True)
    early.socket.settimeout(client.PATIENCE)
    with open(GATE, "w", encoding="ascii") as gate:
        gate.write("go\n")
    report.same("it is answered when the service is ready", contents(16), early.receive().payload)
    report.check("and the service is 'running'", comes(lambda: shown("SubState") == "running"), shown("SubState"))
    os.remove(GATE)
    restart()


def check_wrong_start(report):
    must("systemctl", "stop", SERVICE)
    configure(service='max_clients = "many"')
    report.check("with a wrong configuration it does not start", run("systemctl", "start", SERVICE).returncode != 0)
    said = [line["MESSAGE"] for line in journal("-u", SERVICE, "-n", "40")]
    report.check("the journal names file, line and key",
                 any("/etc/kest/kest.toml:" in line and "key 'service.max_clients'" in line for line in said), said)
    configure()
    must("systemctl", "reset-failed", SERVICE, "kestd.socket")
    must("systemctl", "start", SERVICE)
    report.check("with a right one it does", Connection().read(PLANAR, 0, 16).done)


def as_user(user, *words):
    return run("setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", *words)


def check_users(report):
    """users and groups"""
    configure(service='read_groups = ["operators"]')
    must("systemctl", "reload", SERVICE)
    read = ("kestctl", "message", "read", PLANAR, "--length", "16", "-o", "-")
    report.same("a user of the group reads", 0, as_user("alice", *read).returncode)
    refused = as_user("bob", *read)
    report.same("a user without the group is refused", 3, refused.returncode)
    report.check("and told why", "is not permitted to read" in refused.stderr, refused.stderr)
    refused = as_user("alice", "kestctl", "message", "write", PLANAR, "--offset", "0", "--hex", "00", "--yes")
    report.check("reading does not permit writing",
                 refused.returncode == 3 and "not permitted to write" in refused.stderr, refused.stderr)
    report.same("the part is as it was", contents(16), Connection().read(PLANAR, 0, 16).payload)
