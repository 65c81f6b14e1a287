# Starts and ends the programs that the demo shows. The demo sources this file.
# shellcheck shell=bash disable=SC2034,SC2154

# end PID: asks a process to end, and kills it after ten seconds.
end() {
    kill "$1" 2>/dev/null || return 0
    kill -CONT "$1" 2>/dev/null || true  # a stopped process would not notice the request
    timeout 10 tail -f -s 0.1 --pid="$1" /dev/null || kill -KILL "$1" 2>/dev/null || true
}

# give FILE: makes a copy that the services can change.
give() {
    cp "$1" "$data"
    if [ -n "$service_user" ]; then
        chown "$service_user:$service_user" "$data/${1##*/}"
    fi
}

# start_service: starts the security service and waits until it answers.
start_service() {
    nohup "${as_service[@]}" "$programs/security-service" "$data/security.ini" >>"$temp/service.log" 2>&1 </dev/null &
    service_pid=$!
    "${as_client[@]}" "$programs/security-client" wait || {
        cat "$temp/service.log"
        fail "the service did not start"
    }
}
# start_gateway: starts the web gateway with the page and the description of the device, and sets $site.
start_gateway() {
    rm -f "$temp/gateway.log"
    nohup ${inside[@]+"${inside[@]}"} "${as_client[@]}" "$programs/web-gateway" "$page" \
        "$device" 0 >"$temp/gateway.log" 2>&1 </dev/null &
    gateway_pid=$!
    wait_for_line "$gateway_pid" "$temp/gateway.log" "http://"
    site=$(sed -n 's,^\(http://.*\)/$,\1,p' "$temp/gateway.log")
}
# wait_for_line PID LOG BEGIN: waits until the process has printed a line with this beginning.
wait_for_line() {
    local attempt
    for ((attempt = 0; attempt < 1200; ++attempt)); do
        ! grep -qs "^$3" "$2" || return 0
        kill -0 "$1" 2>/dev/null || break
        sleep 0.05
    done
    cat "$2"
    fail "the process has not printed \"$3\""
}
# start PROGRAM [ARGUMENT]...: starts an example and writes its output to a log with its name.
start() {
    local program=$1 as=("${as_service[@]}")
    shift
    if [ "$program" = echo-service ]; then
        as=(env)  # it does not use the bus, and /tmp/sockets may belong to root
    fi
    nohup ${inside[@]+"${inside[@]}"} "${as[@]}" "$programs/$program" "$@" >"$temp/$program.log" 2>&1 </dev/null &
    pids[$program]=$!
}
# wait_for_service PROGRAM NAME: waits until the program has its name on the bus.
wait_for_service() {
    "${as_client[@]}" "$zarip_bus" --timeout 60 wait "$2" || {
        cat "$temp/$1.log"
        fail "$1 did not start"
    }
}
# start_services: starts all services except the security service.
start_services() {
    give "$defaults/networking.ini"
    start networking-service "$data/networking.ini"
    start stream-info-service 15 main=4
    start ptz-service
    start audio-service 10 1
    start registration-service "$data/registration.ini" camera 3600
    start directory-service "Front door"
    [ -n "$installed" ] || start illuminator  # no package has it
    # If the folder belongs to another user, the echo service cannot listen there.
    if [ ! -e /tmp/sockets ] || [ -w /tmp/sockets ]; then
        start_echo_service
    fi
    wait_for_service networking-service networkingV2
    wait_for_service stream-info-service streamInfo
    wait_for_service ptz-service ptzSerial
    wait_for_service audio-service lineout
    wait_for_service registration-service smRegistration
    wait_for_service directory-service brelkServices
    [ -n "$installed" ] || wait_for_service illuminator Illuminator
}
# start_echo_service: starts it and lets registration-service connect to it.
start_echo_service() {
    start echo-service serve "$echo_name"
    wait_for_line "${pids[echo-service]}" "$temp/echo-service.log" "echoing on"
    if [ -n "$service_user" ]; then
        chown "$service_user" "/tmp/sockets/$echo_name"
    fi
}

# stop_in_order WHAT PID LOG: asks a process to end and expects exit status 0.
stop_in_order() {
    local status=0
    kill "$2" || true
    wait "$2" || status=$?
    step "$1 is asked to end" "exit status $status" "exit status 0"
    if [ "$status" -ne 0 ]; then
        cat "$3"
    fi
}

# stop PROGRAM: does the same with a program that start has started.
stop() {
    stop_in_order "$1" "${pids[$1]}" "$temp/$1.log"
    unset "pids[$1]"
}
