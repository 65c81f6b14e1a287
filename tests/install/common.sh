# The other scripts of this folder source this file.

# The output of consumer.cpp.
expected="alice on 8080"

temp=$(mktemp -d "${TMPDIR:-/tmp}/zarip-install-XXXXXX")
pids=()  # of what is ended with the script
trap 'kill ${pids[@]+"${pids[@]}"} 2>/dev/null || true
    pkill -f -- "--address=unix:path=$temp/" || true  # buses that blocks of the guide have started
    rm -rf "$temp"' EXIT
fail() {
    echo "$(basename "$0"): $1" >&2
    exit 1
}
# quietly COMMAND...: shows the output of the command only if it fails.
quietly() {
    "$@" >"$temp/output" 2>&1 || {
        cat "$temp/output" >&2
        fail "this has failed: $*"
    }
}
