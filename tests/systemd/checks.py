#!/usr/bin/env python3
"""Checks kestd as a service of systemd.

Runs as root in a booted system that has the packages, and changes that system as it likes: tests/proof/systemd makes
one. Each check is a line; the exit code is 1 when one failed.
"""

import os
import sys
import traceback

import activation
import documents
import entries
import life
import sandbox
import watchdog
from system import MACHINE, Report, must

GROUPS = [activation.check, activation.check_users, entries.check_reads, entries.check_failures, entries.check_copies,
          entries.check_journal, sandbox.check, life.check_reload, life.check_stop, life.check_stop_of_copies,
          life.check_restart, watchdog.check, documents.check_system, documents.check_tutorial]


def prepare():
    """Makes a simulated machine that belongs to the service, and users."""
    must("systemctl", "stop", "kestd.service")
    must("kestctl", "sim", "new", str(MACHINE))
    must("chown", "-R", "kest:kest", str(MACHINE.parent))
    must("groupadd", "operators")
    must("useradd", "-G", "operators", "alice")
    must("useradd", "bob")


def main():
    report = Report()
    prepare()
    for group in GROUPS:
        report.heading(group.__doc__)
        try:
            group(report)
        except Exception as error:  # the next group may still say something
            traceback.print_exc()
            report.check(group.__name__, False, repr(error))
    print(f"\n{report.passed} checks passed, {report.failed} failed", flush=True)
    return 1 if report.failed else 0


if __name__ == "__main__":
    os.environ["KEST_CONFIG"] = "/etc/kest/kest.toml"
    sys.exit(main())
