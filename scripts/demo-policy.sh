# The part of demo that has its bus keep to the policies of dbus/system.d, with users of its own; not run on its own.

# What runs a program as the user of the services, as a client that is in the group, and as the same without that group.
# As long as there are no such users nothing changes by it.
forget_accounts() {
    as_service=(env)
    as_client=(env)
    as_outsider=(env)
    service_user=
    client_user=
    group=
}
forget_accounts

# make_accounts: makes the two users and the group. Otherwise false, and the reason is in $refusal.
make_accounts() {
    local command
    if [ "$(id -u)" -ne 0 ]; then
        refusal="only root can run services and clients as users of their own"
        return 1
    fi
    for command in groupadd groupdel useradd userdel setpriv; do
        command -v "$command" >/dev/null || {
            refusal="there is no $command"
            return 1
        }
    done
    remove_lost_accounts
    # Before they exist, so that an interrupt leaves none behind.
    group=zarip-demo-$$
    service_user=$group-s
    client_user=$group-c
    local add=(useradd --system --no-create-home --user-group --shell /usr/sbin/nologin)
    refusal=$({ groupadd --system "$group" && "${add[@]}" "$service_user" && "${add[@]}" "$client_user"; } 2>&1) || return 1
    as_service=(setpriv --reuid "$service_user" --regid "$service_user" --clear-groups)
    as_client=(setpriv --reuid "$client_user" --regid "$client_user" --groups "$group")
    as_outsider=(setpriv --reuid "$client_user" --regid "$client_user" --clear-groups)
    # What they cannot reach, such as a build in somebody's home, they cannot run.
    local status=0
    refusal=$("${as_service[@]}" "$programs/security-service" 2>&1) || status=$?
    [ "$status" -eq 2 ] || return 1  # it has told its usage
    refusal=$({ "${as_client[@]}" "$zarip_bus" --help && "${as_client[@]}" ls -d "$shared/." &&
        "${as_client[@]}" cat "$page/index.html"; } 2>&1 >/dev/null)
}

# remove_lost_accounts: of demos that were killed and could not do it.
remove_lost_accounts() {
    local kind remove name pid
    for kind in passwd:userdel group:groupdel; do
        remove=${kind#*:}
        for name in $(getent "${kind%:*}" | sed -n 's/^\(zarip-demo-[0-9]*\(-[sc]\)\{0,1\}\):.*/\1/p'); do
            pid=${name#zarip-demo-}
            [ -d "/proc/${pid%-[sc]}" ] || "$remove" "$name" || true
        done
    done
}

# remove_accounts: nothing may run as them any more.
remove_accounts() {
    local account
    for account in $service_user $client_user; do
        ! getent passwd "$account" >/dev/null || userdel "$account" || echo "The user $account is left behind" >&2
    done
    ! getent group "${group:-/}" >/dev/null || groupdel "$group" || echo "The group $group is left behind" >&2
    forget_accounts
}

# guarded_bus ADDRESS: the configuration of a bus with the policies that were installed, for those users, after the rules
# with which a system bus begins.
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
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
  <policy user="root">
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Monitoring"/>
  </policy>
  <includedir>$temp/system.d</includedir>
</busconfig>
END
}

# show_policies: what the outsider must not do. Needs the monitor.
show_policies() {
    local security=com.brelk.system.security path=/com/brelk/system/security
    echo "The services run as $service_user, and $client_user calls them as a member of the group $group."
    echo "Without that group the same user is an outsider:"
    step "The outsider calls: zarip-bus call security GetNonce" \
        "$(outcome "${as_outsider[@]}" "$zarip_bus" call security GetNonce)" \
        "exit status 1: zarip-bus: DBUS call *::Introspect failed: Rejected send message*destination=\"$security\"*"
    step "The outsider calls without asking what there is: security-client users" \
        "$(outcome "${as_outsider[@]}" "$programs/security-client" users)" \
        "exit status 1: security-client: DBUS call $security::GetUsers failed: Rejected send message*"
    step "The outsider wants to own the service's name: gdbus call ... RequestName $security" \
        "$(outcome "${as_outsider[@]}" gdbus call --system --dest org.freedesktop.DBus --object-path / \
            --method org.freedesktop.DBus.RequestName "$security" 2)" \
        "exit status 1: Error: *AccessDenied: * is not allowed to own the service \"$security\"*"

    # The watching client has registered when the monitor shows it, and the bus has dealt with the forged signal when the
    # monitor shows that: the genuine one comes behind it.
    "${as_client[@]}" "$programs/security-client" watch >"$temp/watch.log" 2>&1 </dev/null &
    pids[watch]=$!
    wait_for_line "$monitor_pid" "$temp/monitor.log" ".*\"member\":\"AddMatch\".*UsersChanged"
    "${as_outsider[@]}" gdbus emit --system --object-path "$path" --signal "$security.UsersChanged" false
    wait_for_line "$monitor_pid" "$temp/monitor.log" ".*\"member\":\"UsersChanged\".*\[false\]"
    call 0 security ModifyUsers alice:administrator:
    wait_for_line "${pids[watch]}" "$temp/watch.log" "UsersChanged(true)"
    step "security-client watch has heard the service's UsersChanged(true), and not the outsider's UsersChanged(false)" \
        "$(paste -s -d ' ' "$temp/watch.log")" "UsersChanged(true)"
    end "${pids[watch]}"
    unset "pids[watch]"
}
