# Proofs in a root source this one, after root.sh. It counts checks and ends the script at the first that fails.

checks=0
trap 'echo "error: line $LINENO: $BASH_COMMAND" >&2' ERR

# failed TEXT: ends the proof.
failed()
{
    echo "error: $*" >&2
    exit 1
}

# same WHAT EXPECTED FOUND: one check.
same()
{
    [ "$2" = "$3" ] || failed "$1: expected '$2', found '$3'"
    checks=$((checks + 1))
    echo "$1: $3"
}

# there PATH... and gone PATH...: what $root has, and has no longer.
there()
{
    local path
    for path in "$@"; do
        [ -e "$root$path" ] || failed "$path is missing"
        checks=$((checks + 1))
    done
    printf 'there: %s\n' "$@"
}
gone()
{
    local path
    for path in "$@"; do
        [ ! -e "$root$path" ] || failed "$path is still there"
        checks=$((checks + 1))
    done
    printf 'gone: %s\n' "$@"
}

# install FOLDER PACKAGE...: installs packages of a folder of the root, with what they depend on.
install()
{
    local folder=$1 package files=()
    shift
    for package in "$@"; do
        files+=("$(cd "$root" && echo ."$folder/$package"_*.deb)")
    done
    in_root env DEBIAN_FRONTEND=noninteractive sh -c "cd / && apt-get install -y -qq --no-install-recommends ${files[*]}" \
        >"$root/tmp/apt.log" 2>&1 || { cat "$root/tmp/apt.log"; failed "apt-get install $*"; }
}
