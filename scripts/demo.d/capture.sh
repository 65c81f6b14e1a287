# A packet capture of the echo service.
# shellcheck shell=bash disable=SC2034,SC2154

if [ -z "${pids[echo-service]-}" ]; then
    skip "a capture" "/tmp/sockets belongs to another user"
    return
fi

echo "The echo service answers on /tmp/sockets/$echo_name, and its traffic is captured:"
talk() {
    outcome "$programs/echo-service" "$@"
}
step "A text before the capture" "$(talk say "$echo_name" unheard)" "exit status 0: unheard"
step "The capture starts" "$(talk capture "$echo_name" start)" "exit status 0"
step "A text" "$(talk say "$echo_name" "How are you?")" "exit status 0: How are you?"
step "Another text" "$(talk say "$echo_name" "Quite well.")" "exit status 0: Quite well."
step "The capture stops" "$(talk capture "$echo_name" stop)" "exit status 0"
step "A text after the capture" "$(talk say "$echo_name" unheard)" "exit status 0: unheard"
# tshark warns root; only its exit status and its output count.
status=0
lengths=$(tshark -n -r "/tmp/$echo_name.pcap" -T fields -e frame.len 2>"$temp/tshark.log") || status=$?
step "tshark lists the packets of /tmp/$echo_name.pcap: 62 bytes and the text in each" \
    "exit status $status: ${lengths//$'\n'/ }" "exit status 0: 74 74 73 73"
[ "$status" -eq 0 ] || cat "$temp/tshark.log"
stop echo-service
