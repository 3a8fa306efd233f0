# The other scripts source this one. It installs missing packages on a Debian 12 machine, and names them.

packages_build="ca-certificates g++ cmake ninja-build pkg-config libcli11-dev libfmt-dev libtomlplusplus-dev nlohmann-json3-dev
  libsqlite3-dev libasio-dev libsystemd-dev scdoc python3"
packages_demo="xxd"
packages_test="libgtest-dev libgmock-dev googletest mandoc sigrok-cli sqlite3 libseccomp-dev"
packages_bench="python3"
packages_reference="doxygen"
packages_bare="mmdebstrap git"
packages_boot="systemd-container"
packages_package="debhelper lintian git"
packages_foreign="qemu-user-static"
packages_checks="ccache clang-14 libclang-rt-14-dev llvm-14 clang-format-14 clang-tidy-14 git g++-powerpc-linux-gnu
  qemu-user-static"

# need PACKAGE...: installs those that are not installed yet.
need()
{
    local missing="" package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    local as_root=""
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "error: these packages are missing and only root can install them (no sudo here):$missing" >&2
            echo "       as root: apt-get update && apt-get install --no-install-recommends$missing" >&2
            exit 1
        fi
        as_root="sudo"
    fi
    echo "installing:$missing"
    # shellcheck disable=SC2086
    if ! { $as_root apt-get update -qq && $as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends $missing >/dev/null; }; then
        echo "error: apt-get could not install:$missing" >&2
        exit 1
    fi
}

# step TEXT: prints the heading of a step.
step() { printf '\n== %s\n' "$*"; }
