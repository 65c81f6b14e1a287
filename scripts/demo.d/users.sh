# The security service: a second process drives it and kills it; the users are still there after the next start.
# shellcheck shell=bash disable=SC2034,SC2154

"$programs/security-demo" "$service_pid"

echo "The service was killed. It starts again with the same file and still knows its users:"
start_service
users=$("${as_client[@]}" "$programs/security-client" users)
echo "      came back: $users"
echo "      expected:  alice:administrator"
[ "$users" = alice:administrator ] || fail "users were lost"
