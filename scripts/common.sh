# The other scripts of this folder source this file.

# The packages that every build needs.
base_packages="g++ cmake ninja-build pkg-config libdbus-1-dev libgcrypt20-dev libxml2-dev rapidjson-dev libgtest-dev libjpeg-dev dbus libglib2.0-bin openssl"
# The programs with which the demo calls the examples.
demo_packages="bsdutils curl jq openssl tshark gupnp-tools iproute2 libglib2.0-bin"
# Without these packages the tests with clients of another library and with the completion of zsh are skipped.
peer_packages="libsdbus-c++-dev libsdbus-c++-bin zsh"
# The packages with which the demo uses the page in a browser.
browser_packages="chromium chromium-driver python3-selenium"

# usage: prints the comment at the top of the running script.
usage() {
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
}

# fail TEXT: ends the script.
fail() {
    echo "$(basename "$0"): $1" >&2
    exit 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        DEBIAN_FRONTEND=noninteractive "$@"
    elif command -v sudo >/dev/null; then
        sudo DEBIAN_FRONTEND=noninteractive "$@"
    else
        fail "needs to be root, or sudo, for: $*"
    fi
}

# Set by --no-install: nothing is installed, and a missing package ends the script.
no_install=

# install_missing PACKAGE...: lists the packages that are not installed, and installs them.
install_missing() {
    local package missing=()
    for package in "$@"; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
            missing+=("$package")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return
    fi
    if [ -n "$no_install" ]; then
        fail "these packages are missing: ${missing[*]}"
    fi
    if ! command -v apt-get >/dev/null; then
        echo "There is no apt-get to look for these packages of Debian: ${missing[*]}" >&2
        return
    fi
    echo "These packages are missing and will be installed, with what they depend on: ${missing[*]}"
    # If the package lists are missing or old, the first attempt fails.
    as_root apt-get install -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1 || {
        as_root apt-get update
        as_root apt-get install -y --no-install-recommends "${missing[@]}"
    }
}

# clang_packages: prints the packages of clang++ and of the run-time libraries of its sanitizers.
clang_packages() {
    local version
    version=$(apt-cache depends clang 2>/dev/null | sed -n 's/^ *Depends: clang-\([0-9]*\)$/\1/p')
    if [ -z "$version" ] && [ -z "$no_install" ] && command -v apt-get >/dev/null; then
        as_root apt-get update >&2
        version=$(apt-cache depends clang | sed -n 's/^ *Depends: clang-\([0-9]*\)$/\1/p')
    fi
    echo "clang ${version:+libclang-rt-$version-dev}"
}

# configure PRESET FOLDER [CMAKE ARGUMENT]...: configures a build, with ZARIP_WERROR and ZARIP_DEBUG_INFO of
# the environment.
configure() {
    local preset=$1 folder=$2
    shift 2
    command -v ninja >/dev/null || fail "the build needs ninja; Debian has it in ninja-build"
    set -- -DZARIP_WERROR="${ZARIP_WERROR:-OFF}" -DZARIP_DEBUG_INFO="${ZARIP_DEBUG_INFO:-OFF}" "$@"
    if command -v ccache >/dev/null; then
        set -- -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@"
    fi
    cmake --preset "$preset" -B "$folder" "$@" >"$folder.log" 2>&1 || {
        cat "$folder.log"
        return 1
    }
}

# quietly COMMAND...: shows the output of the command only if it fails.
quietly() {
    local output
    output=$("$@" 2>&1) || {
        printf '%s\n' "$output"
        return 1
    }
}

# A hook for mmdebstrap, in whose folders /proc is read-only and all pseudo-terminals belong to one user.
# shellcheck disable=SC2016,SC2034  # the hook has a $1 of its own
as_on_a_machine='if [ "$MMDEBSTRAP_MODE" = root ]; then mount -o remount,rw "$1/proc"; fi
    umount "$1/dev/pts" && mount -t devpts -o noexec,nosuid,gid=5,mode=620,ptmxmode=666 none "$1/dev/pts"'
