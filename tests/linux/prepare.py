"""Gets and builds what runs on the emulated boards."""

import gzip
import os
import pathlib
import random
import re
import shutil
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
WORK = pathlib.Path(os.environ.get("KEST_LINUX_WORK", ROOT / "build-linux"))
MODULES = ["i2c/i2c-dev", "i2c/i2c-mux", "i2c/muxes/i2c-mux-pca954x", "i2c/busses/i2c-imx", "i2c/busses/i2c-aspeed",
           "misc/eeprom/at24", "hwmon/lm75"]
PROGRAMS = ["onboard", "holdwrite", "counted", "seepromwork"]
CROSS_LIBRARIES = pathlib.Path("/usr/arm-linux-gnueabihf/lib")
LIBRARIES = ["ld-linux-armhf.so.3", "libc.so.6", "libm.so.6", "libgcc_s.so.1", "libstdc++.so.6", "libatomic.so.1"]
NEW_BYTES = random.Random("new").randbytes(65536)  # /new.bin on the boards: what the checks write


def call(*command, **options):
    return subprocess.run([str(part) for part in command], check=True, **options)


def install():
    packages = "$packages_build g++-arm-linux-gnueabihf qemu-system-arm device-tree-compiler cpio"
    call("bash", "-c", f". scripts/lib/setup.sh; need {packages}", cwd=ROOT)


def download():
    """Unpacks the boards' kernel, busybox and i2c-tools; the packages of this machine are not changed."""
    folder = WORK / "armhf"
    if not (folder / "usr/sbin/i2ctransfer").exists():
        state = WORK / "apt"
        for part in ("lists/partial", "cache/archives/partial"):
            (state / part).mkdir(parents=True, exist_ok=True)
        (state / "status").touch()
        (state / "sources.list").write_text("deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] "
                                            "http://deb.debian.org/debian bookworm main\n")
        settings = {"Dir::Etc::sourcelist": state / "sources.list", "Dir::Etc::sourceparts": "-",
                    "Dir::State::Lists": state / "lists", "Dir::State::status": state / "status",
                    "Dir::Cache": state / "cache", "APT::Architecture": "armhf", "APT::Architectures::": "armhf",
                    "APT::Sandbox::User": "root"}
        options = [part for key, value in settings.items() for part in ("-o", f"{key}={value}")]
        call("apt-get", "-qq", *options, "update")
        depends = call("apt-cache", *options, "depends", "linux-image-armmp", capture_output=True, text=True).stdout
        image = re.search(r"Depends: (linux-image-\S+)", depends).group(1)
        call("apt-get", "-qq", *options, "download", image, "busybox-static", "i2c-tools", "libi2c0", cwd=state)
        for package in state.glob("*.deb"):
            call("dpkg-deb", "-x", package, folder)
    return folder


def build():
    """Builds the programs for the boards."""
    folder = WORK / "build"
    call("cmake", "-S", HERE, "-B", folder, "-G", "Ninja", "--toolchain", HERE / "armhf.cmake",
         "-DCMAKE_BUILD_TYPE=Release", stdout=subprocess.DEVNULL)
    call("ninja", "--quiet", "-C", folder, "kestctl", *PROGRAMS)
    return folder


def make_ramfs(armhf, programs):
    """@return the version of the kernel that the modules are for"""
    kernel = next((armhf / "lib/modules").iterdir()).name
    root = WORK / "ramfs"
    shutil.rmtree(root, ignore_errors=True)
    for folder in ("bin", "lib", "modules", "proc", "sys", "dev", "tmp", "run/lock", "state"):
        (root / folder).mkdir(parents=True)
    for source in (armhf / "bin/busybox", armhf / "usr/sbin/i2ctransfer"):
        shutil.copy(source, root / "bin")
    for source in [CROSS_LIBRARIES / name for name in LIBRARIES] + [next(armhf.glob("usr/lib/*/libi2c.so.0"))]:
        shutil.copy(source, root / "lib")
    for source in [programs / "bin/kestctl", *(programs / name for name in PROGRAMS)]:
        shutil.copy(source, root)
    for source in (HERE / "board").glob("*"):
        if source.suffix in ("", ".toml"):
            shutil.copy(source, root)
    (root / "init").chmod(0o755)
    (root / "new.bin").write_bytes(NEW_BYTES)
    for number, module in enumerate(MODULES):
        source = armhf / f"lib/modules/{kernel}/kernel/drivers/{module}.ko"
        shutil.copy(source, root / f"modules/{number}-{source.name}")
    names = "\n".join(str(path.relative_to(root)) for path in sorted(root.rglob("*")))
    archive = call("cpio", "-o", "-H", "newc", "--quiet", cwd=root, input=names.encode(), stdout=subprocess.PIPE).stdout
    (WORK / "ramfs.gz").write_bytes(gzip.compress(archive, 1))
    return kernel
