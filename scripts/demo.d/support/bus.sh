# Starts the bus of the demo. The demo sources this file.
# shellcheck shell=bash disable=SC2154

# guarded_bus ADDRESS: prints the configuration of a bus. It has the rules that every system bus begins with and then the
# installed policies, with the accounts of the demo in place of the users and the group that they name.
guarded_bus() {
    mkdir "$temp/system.d"
    local policy
    for policy in "$policies"/*.conf examples/illuminator/com.*.conf; do
        sed "s/user=\"zarip-\(backup\|gateway\)\"/user=\"$client_user\"/
            s/user=\"\(zarip-[a-z]*\|illuminator\)\"/user=\"$service_user\"/
            s/group=\"zarip\"/group=\"$group\"/" "$policy" \
            >"$temp/system.d/${policy##*/}"
    done
    cat <<END
<busconfig>
  <type>system</type>
  <listen>$1</listen>
  <include>$PWD/scripts/demo.d/support/system-bus.conf</include>
  <includedir>$temp/system.d</includedir>
</busconfig>
END
}

# open_bus: starts a private bus unless DBUS_SYSTEM_BUS_ADDRESS names one. The bus enforces the policies if accounts can be
# made; otherwise $unguarded has the reason.
open_bus() {
    if [ -n "${DBUS_SYSTEM_BUS_ADDRESS-}" ]; then
        unguarded="the bus in DBUS_SYSTEM_BUS_ADDRESS has policies of its own"
    elif [ -z "$stay" ]; then
        shared=$(mktemp -d "${TMPDIR:-/tmp}/zarip-demo-XXXXXX")
        chmod 711 "$shared"
        if make_accounts; then
            data=$shared/data
            mkdir -m 700 "$data"
            chown "$service_user:$service_user" "$data"
            export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$shared/bus"
            guarded_bus "$DBUS_SYSTEM_BUS_ADDRESS" >"$temp/bus.conf"
        else
            unguarded=$refusal
            remove_accounts
        fi
    fi
    if [ -z "${DBUS_SYSTEM_BUS_ADDRESS-}" ]; then
        export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$temp/bus"
        cat >"$temp/bus.conf" <<END
<busconfig>
  <type>session</type>
  <listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
</busconfig>
END
    fi
    if [ -e "$temp/bus.conf" ]; then
        # The command returns when the bus can be reached.
        bus_pid=$(dbus-daemon --config-file="$temp/bus.conf" --fork --print-pid)
    fi
}
