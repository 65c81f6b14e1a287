# A program whose output is logged.
# shellcheck shell=bash disable=SC2034,SC2154

echo "A program's output is logged line by line:"
run_logged() {
    outcome "$programs/run-logged" "$@"
}
step "run-logged: a program that ends" "$(run_logged 60 sh -c 'echo one; echo two >&2; exit 3')" \
    "exit status 3: *] :: one *] :: two *] :: ended with status 3"
follow docs/guide/files-and-processes.md 1 "exit status 124: *] :: hello *] :: took longer than 2000 ms"
