# The bus policies: what the bus refuses to a user outside of the group of the services.
# shellcheck shell=bash disable=SC2154

if [ -n "$unguarded" ]; then
    skip "the bus policies" "$unguarded"
    return
fi
security=com.brelk.system.security
path=/com/brelk/system/security
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

# The monitor shows when the watching client has subscribed and when the bus has handled the forged signal. The genuine
# signal is sent after both.
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
