# Makes and removes the users and the group under which services and clients run if root runs the demo. The demo sources this file.
# shellcheck shell=bash disable=SC2034,SC2154

# forget_accounts: sets the commands that run a program as the user of the services ($as_service), as a client in the group
# ($as_client) and as the same client without the group ($as_outsider). Without accounts they change nothing.
forget_accounts() {
    as_service=(env)
    as_client=(env)
    as_outsider=(env)
    service_user=
    client_user=
    group=
}
forget_accounts

# make_accounts: makes the two users and the group. If it fails, it returns false, and the reason is in $refusal.
make_accounts() {
    local command
    if [ "$(id -u)" -ne 0 ]; then
        refusal="only root can run services and clients as users of their own"
        return 1
    fi
    for command in groupadd groupdel useradd userdel setpriv; do
        command -v "$command" >/dev/null || {
            refusal="the command $command is missing"
            return 1
        }
    done
    remove_lost_accounts
    # The names are set before the accounts exist, so that clean_up removes them after an interrupt, too.
    group=zarip-demo-$$
    service_user=$group-s
    client_user=$group-c
    local add=(useradd --system --no-create-home --user-group --shell /usr/sbin/nologin)
    refusal=$({ groupadd --system "$group" && "${add[@]}" "$service_user" && "${add[@]}" "$client_user"; } 2>&1) || return 1
    as_service=(setpriv --reuid "$service_user" --regid "$service_user" --clear-groups)
    as_client=(setpriv --reuid "$client_user" --regid "$client_user" --groups "$group")
    as_outsider=(setpriv --reuid "$client_user" --regid "$client_user" --clear-groups)
    # The accounts cannot run what they cannot reach, such as a build in a private home folder.
    local status=0
    refusal=$("${as_service[@]}" "$programs/security-service" 2>&1) || status=$?
    [ "$status" -eq 2 ] || return 1  # the program has printed its usage
    refusal=$({ "${as_client[@]}" "$zarip_bus" --help && "${as_client[@]}" ls -d "$shared/." &&
        "${as_client[@]}" cat "$page/index.html"; } 2>&1 >/dev/null)
}

# remove_lost_accounts: removes the accounts of demos that were killed.
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

# remove_accounts: no program may run under the accounts any more.
remove_accounts() {
    local account
    for account in $service_user $client_user; do
        ! getent passwd "$account" >/dev/null || userdel "$account" || echo "The user $account could not be removed" >&2
    done
    ! getent group "${group:-/}" >/dev/null || groupdel "$group" || echo "The group $group could not be removed" >&2
    forget_accounts
}
