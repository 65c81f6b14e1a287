# The other services of the camera, called and watched with zarip-bus.
# shellcheck shell=bash disable=SC2034,SC2154

# expected_network INTERFACE: prints what networking-service must answer about the interface, as the kernel has it.
expected_network() {
    local mac address
    IFS=: read -ra mac <"/sys/class/net/$1/address"
    address=$(ip -o -4 address show dev "$1" | sed -n '1s/.* inet \([0-9.]*\).*/\1/p')
    printf '{"[NIC/eth0]EUI64":"%02x:%s:%s:ff:fe:%s:%s:%s","[NIC/eth0]MTU":"%s"%s}' $((16#${mac[0]} ^ 2)) "${mac[@]:1}" \
        "$(cat "/sys/class/net/$1/mtu")" "${address:+,\"[IPv4/Actual]Address\":\"$address\"}"
}

start_services
start_monitor
echo "The other services have started, and zarip-bus, a tool of the library, calls them:"
step "zarip-bus list" "$(outcome "${as_client[@]}" "$zarip_bus" list)" "exit status 0: *com.brelk.audio.lineout com.brelk.brelkServices \
com.brelk.hardware.ptzSerial com.brelk.mirase.smRegistration com.brelk.networkingV2 com.brelk.system.security \
com.brelk.video.streamInfo*"
step "gdbus introspects the PTZ service" "$("${as_client[@]}" gdbus introspect --system --dest com.brelk.hardware.ptzSerial \
    --object-path /com/brelk/hardware/ptzSerial | grep -o '[GS]etPtz[A-Za-z]*' | paste -s -d ' ')" \
    "SetPtzSerialSettingsAndInitialize GetPtzSerialSettingsAndInitialize SetPtzPollingState GetPtzPollingState"

call "{\"[System]Hostname\":\"$(uname -n)\",\"[NTP]Server\":\"pool.ntp.org\"}" \
    networkingV2 Get '{"settings":["[System]Hostname","[NTP]Server"]}'
nic=$("${as_client[@]}" "$zarip_bus" call networkingV2 Get '{"settings":["[NIC/eth0]Name"]}' | sed -n 's/.*:"\(.*\)"}/\1/p')
if [ -n "$nic" ]; then
    call "$(expected_network "$nic")" \
        networkingV2 Get '{"settings":["[NIC/eth0]EUI64","[NIC/eth0]MTU","[IPv4/Actual]Address"]}'
else
    skip "the network's interface" "the machine has no Ethernet interface"
fi
call '{"[NTP]Server":"192.0.2.1"}' networkingV2 Set '{"[NTP]Server":"192.0.2.1"}'
hear "hears the change" NTPConfigChanged "[1]"
step "It is in the file" "$(grep Server "$data/networking.ini")" "Server = 192.0.2.1"
refuse 'nobody can change "[NIC/eth0]MTU"' networkingV2 Set '{"[NIC/eth0]MTU":"9000"}'
refuse '[IPv4/Static]Gateway cannot be "nowhere"' networkingV2 Set '{"[IPv4/Static]Gateway":"nowhere"}'
call 4 streamInfo GetGuaranteedVideoConnections main
call 0 streamInfo GetCurrentVideoConnections main
call "" ptzSerial SetPtzSerialSettingsAndInitialize 19200 0 1 true
call "19200 0 1 true" ptzSerial GetPtzSerialSettingsAndInitialize
call "" ptzSerial SetPtzPollingState true
call true ptzSerial GetPtzPollingState
expect_log ptz-service "The head answers"
call "ok 1" lineout Connect "Living room" 16000 1
call "busy 0" lineout Connect Kitchen 16000 1
call "ok" lineout KeepAlive 1
call "1 Living room 1" lineout Query
call false smRegistration IsRegistered
registered=false
if [ -n "${pids[echo-service]-}" ]; then
    call "" smRegistration ForceRegister "$echo_name"
    expect_log registration-service "The manager has agreed"
    call true smRegistration IsRegistered
    call true smRegistration IsSynced
    call "" smRegistration ResetSynced
    call false smRegistration IsSynced
    registered=true
else
    skip "registration" "/tmp/sockets belongs to another user"
fi
call '["Front door"]' brelkServices GetCameraDeviceNames
call '[{"name":"com.brelk.hardware.ptzSerial","deviceType":"ptz"}]' brelkServices GetServicesByDeviceType ptz
if [ -n "${pids[illuminator]-}" ]; then
    call true Illuminator SetBrightness 40
    hear "hears a service of another maker" BrightnessChanged "[40]"
    call 40 Illuminator GetBrightness
fi
# change_something: causes signals while a block of the guide watches the bus.
change_something() {
    "${as_client[@]}" "$zarip_bus" call networkingV2 Set "{\"[NTP]Server\":\"192.0.2.$attempt\"}"
    [ -z "${pids[illuminator]-}" ] ||
        "${as_client[@]}" "$zarip_bus" call Illuminator SetBrightness $((attempt % 100))
}
follow docs/guide/bus.md 1 "exit status 0: (1, 'Living room', 1)"
follow docs/guide/bus.md 2 \
    "*com.brelk.audio.lineout*GetUsers*alice:administrator*NTPConfigChanged*" change_something
follow docs/guide/memory-and-bits.md 1 ""
[ -z "${pids[illuminator]-}" ] ||
    follow docs/guide/own-service.md 1 "*SetBrightness*true*BrightnessChanged*" change_something
start analytics-source 1000
hear "hears of the new service" StateChange "[]"
hear "sees an alert" AnalyticsAlert '["1","camera","fence","person",4,*"Front fence",3,"ended","A person has crossed the fence",*]'
