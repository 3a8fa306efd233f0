# Scripts that try things on a bare Debian 12 source this one, after setup.sh. It makes a minimal root from this machine's own package
# sources and runs commands in it.

# enter_namespace SCRIPT ARGUMENT...: goes on as root in namespaces of its own. Mounts and processes end with the script.
enter_namespace()
{
    if [ "$(id -u)" -ne 0 ]; then
        exec sudo --preserve-env=http_proxy,https_proxy "$@"
    fi
    if [ -z "${KEST_ROOT_NAMESPACE:-}" ]; then
        KEST_ROOT_NAMESPACE=1 exec unshare --mount --mount-proc --pid --fork --kill-child "$@"
    fi
}

# sources_of_debian: prints the files of this machine's package sources that name Debian's own archive.
sources_of_debian()
{
    apt-get indextargets --format '$(SOURCESENTRY)' 'Created-By: Packages' 'Origin: Debian' | sed 's/:[0-9]*$//' | sort -u
}

# source_of_release: prints the first archive of the release itself, as a line of sources.list. A root for two architectures has it alone:
# packages need the same version in both, and updates reach the architectures one after the other.
source_of_release()
{
    apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Origin: Debian' |
        awk '$3 == "bookworm" && $4 == "main" { print; exit }'
}

# make_root [ARCHITECTURE]: makes a minimal root, $root, which goes when the script ends. It can also take packages of ARCHITECTURE.
make_root()
{
    root=$(mktemp -d)
    trap 'leave_root; rm -rf --one-file-system "$root"' EXIT
    local print=sources_of_debian sources
    [ $# -eq 0 ] || print=source_of_release
    mapfile -t sources < <($print)
    if [ "${#sources[@]}" -eq 0 ]; then
        apt-get update -qq
        mapfile -t sources < <($print)
    fi
    [ "${#sources[@]}" -gt 0 ] || { echo "error: no source of Debian's packages is configured here" >&2; exit 1; }
    apt-config dump | grep -E '^Acquire::(http|https|Check|Retries)' >"$root.conf" || true
    mmdebstrap --quiet --variant=minbase --architectures="$(dpkg --print-architecture)${1:+,$1}" --aptopt="$root.conf" bookworm "$root" \
        "${sources[@]}"
    rm "$root.conf"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    mount --rbind /sys "$root/sys"
    mount --rbind /dev "$root/dev"
    mount -t proc proc "$root/proc"
}

# leave_root: takes away what this machine lent the root.
control_groups=()
leave_root()
{
    local path
    umount -l "$root"/proc "$root"/sys "$root"/dev 2>/dev/null || true
    for path in "${control_groups[@]}"; do
        echo 0 >"$path/cgroup.procs"
        find "$path/kest-root-$$" -depth -type d -exec rmdir {} +
    done
    control_groups=()
}

# in_root COMMAND...: runs a command in $root. Of this machine's environment it sees only the proxies for packages.
in_root()
{
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb ${http_proxy:+http_proxy=$http_proxy} \
        ${https_proxy:+https_proxy=$https_proxy} chroot "$root" "$@" </dev/null
}

# boot_root SECONDS OPTION...: boots $root in a container, with options of systemd-nspawn, until the container ends or the time is over.
# Nothing runs in the root by in_root any more. The container's control groups lie in groups of their own and go with it.
boot_root()
{
    local seconds=$1 mount name path result=0
    shift
    leave_root
    # of this machine the container's manager sees neither /run nor another container
    mount -t tmpfs tmpfs /run
    while read -r mount name; do
        path=$mount$(awk -F: -v name="$name" '$2 == name {print $3}' /proc/self/cgroup)
        mkdir "$path/kest-root-$$"
        echo 0 >"$path/kest-root-$$/cgroup.procs"
        control_groups+=("$path")
    done < <(awk '$3 == "cgroup2" {print $2, ""} $3 == "cgroup" && $4 ~ /name=systemd/ {print $2, "name=systemd"}' /proc/self/mounts)
    SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 timeout "$seconds" systemd-nspawn --quiet --directory="$root" --machine=kest-root --register=no \
        --keep-unit --console=pipe "$@" --boot </dev/null || result=$?
    leave_root
    return $result
}
