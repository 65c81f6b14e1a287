# Shared by the scripts beside it; not run on its own.

# What every build needs.
base_packages="g++ cmake ninja-build pkg-config libdbus-1-dev libgcrypt20-dev libxml2-dev rapidjson-dev libgtest-dev libjpeg-dev dbus libglib2.0-bin openssl"
# What the demo talks to the examples with.
demo_packages="curl tshark gupnp-tools iproute2 libglib2.0-bin"
# What it uses the page with.
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

# install_missing PACKAGE...: installs those that are not there; does nothing when all are.
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
    if ! command -v apt-get >/dev/null; then
        echo "No apt-get here; going on without knowing of: ${missing[*]}" >&2
        return
    fi
    echo "Installing ${missing[*]}"
    # Without package lists, or with old ones, the first attempt fails.
    as_root apt-get install -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1 || {
        as_root apt-get update
        as_root apt-get install -y --no-install-recommends "${missing[@]}"
    }
}

# install_clang: clang++ with the run-time libraries of its sanitizers.
install_clang() {
    install_missing clang
    install_missing "libclang-rt-$(clang++ -dumpversion | cut -d. -f1)-dev"
}

# configure PRESET FOLDER [CMAKE ARGUMENT]...
configure() {
    local preset=$1 folder=$2
    shift 2
    if command -v ccache >/dev/null; then
        set -- -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@"
    fi
    cmake --preset "$preset" -B "$folder" "$@" >"$folder.log" 2>&1 || {
        cat "$folder.log"
        return 1
    }
}

# quietly COMMAND...: shows what it prints only if it fails.
quietly() {
    local output
    output=$("$@" 2>&1) || {
        printf '%s\n' "$output"
        return 1
    }
}
