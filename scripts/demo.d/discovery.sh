# Discovery, and changes of the network, both in a network of their own.
# shellcheck shell=bash disable=SC2034,SC2154

# make_network [OPTION OF UNSHARE]...: starts a process that keeps a network and a host name of its own alive. The network has
# only the loopback interface, so no multicast leaves it. Sets $network_pid, or $refusal if it fails.
make_network() {
    exec {answers}< <(exec unshare --net --uts "$@" bash -c "ip link set lo up multicast on && ip route add 224.0.0.0/4 dev lo &&
        echo ready && exec sleep infinity" 2>&1)
    network_pid=$!
    read -r refusal <&"$answers" || true
    exec {answers}<&-
    [ "$refusal" != ready ] || return 0
    end "$network_pid"
    network_pid=
    return 1
}
if make_network; then
    inside=(nsenter --target "$network_pid" --net --uts)
elif [ -n "$unguarded" ] && make_network --user --map-root-user; then  # such a network has no user for the services
    inside=(nsenter --target "$network_pid" --user --preserve-credentials --net --uts)
    # The bus knows root of that network as the user that made it, and its clients must name that user.
    as_service=(unshare --user --map-user "$(id -u)")
    as_client=("${as_service[@]}")
else
    skip "discovery and changes of the network" "no network of its own can be made for them: $refusal"
fi
# change SIGNAL ARGUMENTS COMMAND...: changes the network, which networking-service must report with the signal.
change() {
    local signal=$1 arguments=$2
    shift 2
    "${inside[@]}" "$@" || fail "the network cannot be changed"
    hear "hears of: $*" "$signal" "$arguments"
}
if [ -n "$network_pid" ]; then
    start_gateway
    "${inside[@]}" "$programs/discovery-responder" "$device" "${site##*:}" \
        >"$temp/responder.log" 2>&1 </dev/null &
    responder_pid=$!
    wait_for_line "$responder_pid" "$temp/responder.log" "answering searches"
    echo "The discovery responder announces the camera in a network of its own, and gssdp-discover searches for cameras there:"
    "${inside[@]}" gssdp-discover --interface=lo --target=upnp:rootdevice --message-type=all --timeout=120 \
        >"$temp/browser.log" 2>&1 </dev/null &
    browser_pid=$!
    # found WORD: prints name and location of the device that has become "available" or "unavailable".
    found() {
        sed -n "/^resource $1/,/^resource/s/^ *\(USN\|Location\): *//p" "$temp/browser.log" | paste -s -d ' '
    }
    uuid=$(sed -n 's/^UDN = //p' "$device")
    wait_for_line "$browser_pid" "$temp/browser.log" "resource available"
    answer=$(found available)
    step "gssdp-discover searches for upnp:rootdevice" "$answer" "$uuid::upnp:rootdevice $site/device.xml"
    location=${answer##* }
    site=${location%/device.xml}
    exchange "GET $location" "200 text/xml; charset=\"utf-8\" <?xml version=\"1.0\" encoding=\"UTF-8\"?>" /device.xml
    step "The name and the device in it" \
        "$(sed -n 's,.*<\(friendlyName\|UDN\)>\(.*\)</.*,\2,p' "$temp/answer" | paste -s -d ' ')" \
        "Front door &amp; yard $uuid"
    cat "$temp/answer"
    stop_in_order "The discovery responder" "$responder_pid" "$temp/responder.log"
    responder_pid=
    wait_for_line "$browser_pid" "$temp/browser.log" "resource unavailable"
    step "gssdp-discover hears that the camera leaves" "$(found unavailable)" "$uuid::upnp:rootdevice"
    stop_in_order "The web gateway" "$gateway_pid" "$temp/gateway.log"
    gateway_pid=
    end "$browser_pid"
    browser_pid=

    echo "The port of the guide is free in that network:"
    head -c 3000000 /dev/urandom >"$desk/firmware.bin"
    follow docs/guide/http.md 1 "exit status 0: *http://127.0.0.1:8080/ *"
    step "The file has arrived" \
        "$(outcome cmp "$desk/firmware.bin" "$desk/files/firmware.bin")" "exit status 0"

    if "${inside[@]}" ip link add eth0 type veth peer name eth1 2>/dev/null ||
        "${inside[@]}" ip link add eth0 type dummy 2>/dev/null; then
        echo "The networking service runs in that network, too, and reports its changes:"
        start networking-service "$data/networking.ini"
        wait_for_service networking-service networkingV2
        call '{"[NIC/eth0]Name":"eth0"}' networkingV2 Get '{"settings":["[NIC/eth0]Name"]}'  # after this answer it watches the network
        change IPv4AddressChange '["192.0.2.7"]' ip address add 192.0.2.7/24 dev eth0
        change MTUChange "[1300]" ip link set dev eth0 mtu 1300
        change HostnameChange '["yard"]' hostname yard
        if [ "$("${inside[@]}" cat /proc/sys/net/ipv6/conf/eth0/disable_ipv6 2>/dev/null)" = 0 ]; then
            change IPv6AddressAdded '["2001:db8::7"]' ip address add 2001:db8::7/64 dev eth0 nodad
            change IPv6AddressRemoved '["2001:db8::7"]' ip address del 2001:db8::7/64 dev eth0
        fi
        stop networking-service
    else
        skip "changes of the network" "no interface can be added to the network"
    fi
    end "$network_pid"
    network_pid=
    inside=()
fi
