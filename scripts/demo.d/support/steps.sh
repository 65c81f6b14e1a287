# Asks something, and compares what comes back with what is expected. The demo sources this file.
# shellcheck shell=bash disable=SC2034,SC2154

steps=0
differences=0
# step ASKED CAME_BACK EXPECTED: prints one step. EXPECTED is a pattern, in which "*" matches everything. Counts a step that
# differs in $differences.
step() {
    local verdict=ok pattern=${3//\[/\\[}
    # shellcheck disable=SC2053
    if [[ $2 != $pattern ]]; then
        verdict="NOT AS EXPECTED"
        differences=$((differences + 1))
    fi
    steps=$((steps + 1))
    printf '%2d. [%s] %s\n      came back: %s\n      expected:  %s\n' "$steps" "$verdict" "$1" "$2" "$3"
}
skipped=
# skip WHAT WHY: reports what this machine cannot show.
skip() {
    echo "SKIPPED: $1: ${2//$'\n'/ }"
    skipped+=${skipped:+, }$1
}
# fetch [ARGUMENT OF CURL]...: runs curl without the settings and the proxy of the user.
fetch() {
    ${inside[@]+"${inside[@]}"} curl -q -sS --noproxy '*' --max-time 60 "$@"
}
# exchange ASKED EXPECTED PATH [ARGUMENT OF CURL]...: sends one request. The code, the type and the first line come back.
exchange() {
    local asked=$1 expected=$2 path=$3 answer
    shift 3
    rm -f "$temp/answer"
    answer=$(fetch -o "$temp/answer" -w '%{http_code} %{content_type} ' "$@" "$site$path") || answer="no answer"
    answer+=$(head -n 1 "$temp/answer" 2>/dev/null) || true
    step "$asked" "${answer%"${answer##*[! ]}"}" "$expected"
}
# await PART PATH: asks as alice until the answer contains the part. The gateway asks the services every two seconds.
await() {
    local attempt
    for ((attempt = 0; attempt < 300; ++attempt)); do
        [[ $(fetch "${jar[@]}" "$site$2") != *$1* ]] || break
        sleep 0.1
    done
}

# outcome COMMAND [ARGUMENT]...: prints exit status and output in one line.
outcome() {
    local answer status=0
    answer=$("$@" 2>&1) || status=$?
    echo "exit status $status${answer:+: ${answer//$'\n'/ }}"
}
# call EXPECTED SERVICE MEMBER [ARGUMENT]...: calls a member with zarip-bus.
call() {
    local expected=$1
    shift
    step "zarip-bus call $*" "$(outcome "${as_client[@]}" "$zarip_bus" call "$@")" "exit status 0${expected:+: $expected}"
}
# refuse EXPECTED SERVICE MEMBER [ARGUMENT]...: calls a member and expects an error.
refuse() {
    local expected=$1
    shift
    step "zarip-bus call $*" "$(outcome "${as_client[@]}" "$zarip_bus" call "$@")" "exit status 1: zarip-bus: DBUS call * failed: $expected"
}
# expect_log PROGRAM TEXT: waits until the program has logged the text.
expect_log() {
    wait_for_line "${pids[$1]}" "$temp/$1.log" ".*$2"
    step "$1 logs" "$(sed -n "s/.*\($2.*\)/\1/p" "$temp/$1.log" | head -n 1)" "$2*"
}
# start_monitor: from now on monitor.log gets every message on the bus as a line of JSON.
start_monitor() {
    "$zarip_bus" monitor >"$temp/monitor.log" 2>&1 </dev/null &
    monitor_pid=$!
    local attempt
    for ((attempt = 0; attempt < 600; ++attempt)); do
        "${as_client[@]}" "$zarip_bus" list >/dev/null
        ! grep -qs '"member":"ListNames"' "$temp/monitor.log" || return 0
        kill -0 "$monitor_pid" 2>/dev/null || break
        sleep 0.1
    done
    cat "$temp/monitor.log"
    fail "zarip-bus monitor has printed nothing"
}
# hear WHEN SIGNAL ARGUMENTS: waits until the log of the monitor has the signal.
hear() {
    wait_for_line "$monitor_pid" "$temp/monitor.log" ".*\"type\":\"signal\".*\"member\":\"$2\""
    step "zarip-bus monitor $1" \
        "$(sed -n "s/.*\"member\":\"\($2\)\".*\"arguments\":\(.*\)}\$/\1 \2/p" "$temp/monitor.log" | head -n 1)" "$2 $3"
}
# typed_output: prints what the terminal has shown, in one line and without colours.
typed_output() {
    sed 's/\x1b\[[0-9;]*m//g' "$temp/terminal" | tr -s '\r\n ' ' ' | sed 's/ $//'
}
# follow PAGE NUMBER EXPECTED [COMMAND]...: types a block of the guide into a terminal, as a client in the folder
# $desk. If the block is a transcript, the page says what is expected. A block that does not end is ended when
# its output is as expected; the command is repeated until then, to cause that output. Every question for a pass
# phrase gets the same answer.
follow() {
    local page=$1 number=$2 expected=$3 block output="" asked="" pid keys attempt status=0
    shift 3
    block=$(scripts/block "$page" "$number")
    if [[ $block = "$ "* ]]; then
        expected="exit status 0: $(sed '/^[$] /d' <<<"$block" | paste -s -d ' ')"
        block=$(sed -n 's/^[$] //p' <<<"$block")
    fi
    # shellcheck disable=SC2016
    exec {keys}> >(
        cd "$desk"
        export block PATH=$programs:${zarip_bus%/*}:$PATH HOME=$desk no_proxy='*'
        exec ${inside[@]+"${inside[@]}"} "${as_client[@]}" \
            script --quiet --return --command 'exec bash -e -m -c "$block"' /dev/null >"$temp/terminal" 2>&1
    )
    pid=$!
    for ((attempt = 0; attempt < 600; ++attempt)); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
        [ $# -eq 0 ] || "$@" >/dev/null
        output=$(typed_output)
        # shellcheck disable=SC2053
        [[ $output != $expected ]] || break
        if [[ $output != "$asked" && $output =~ [Pp]ass[\ a-z]*:$ ]]; then
            asked=$output
            echo "battery staple" >&"$keys"
        fi
    done
    # What has ended by itself has a status.
    if ! kill "$pid" 2>/dev/null; then
        wait "$pid" || status=$?
        output="exit status $status: $(typed_output)"
    fi
    exec {keys}>&-
    step "$page, block $number" "$output" "$expected"
}
