# The web gateway: curl logs in and out, manages users, reads the state of the camera and sends bad requests.
# shellcheck shell=bash disable=SC2034,SC2154

start_gateway
echo "The web gateway listens at $site/, and curl sends requests to it:"
json="application/json"
jar=(-b "$temp/cookies" -c "$temp/cookies")
form=(--data-urlencode)
alice="{\"name\":\"alice\",\"role\":\"administrator\"}"
carol="{\"name\":\"carol\",\"role\":\"viewer\"}"
event="{\"time\":\"????-??-??T??:??:??Z\",\"value\":true}"

exchange "GET /" "200 text/html; charset=UTF-8 <!DOCTYPE html>" /
exchange "GET /health" "200 $json {}" /health
exchange "GET /api/status without a login" "401 $json {\"error\":\"Please log in.\"}" /api/status
exchange "GET /api/status with a made-up session" "401 $json {\"error\":\"Please log in.\"}" /api/status -b session=0
exchange "GET /api/nothing without a login" "401 $json {\"error\":\"Please log in.\"}" /api/nothing
exchange "POST /login: alice with a wrong password" "401 $json {\"error\":\"User name or password is wrong.\"}" \
    /login "${jar[@]}" "${form[@]}" user=alice "${form[@]}" "password=battery staple"
exchange "POST /login: alice with her password" "200 $json {\"user\":\"alice\"}" \
    /login "${jar[@]}" "${form[@]}" user=alice "${form[@]}" "password=correct horse"
exchange "GET /api/status" "200 $json {\"user\":\"alice\",\"secondsLeft\":*}" /api/status "${jar[@]}"
exchange "GET /api/nothing" "404 $json {\"error\":\"There is no such thing.\"}" /api/nothing "${jar[@]}"
exchange "GET /api/users" "200 $json [$alice]" /api/users "${jar[@]}"
exchange "POST /api/users: carol, with a password that a form has to encode" "200 $json [$alice,$carol]" \
    /api/users "${jar[@]}" "${form[@]}" name=carol "${form[@]}" role=viewer "${form[@]}" "password=a+b & c=100% ü"
exchange "POST /api/users: carol again" "409 $json {\"error\":\"There is such a user already.\"}" \
    /api/users "${jar[@]}" "${form[@]}" name=carol "${form[@]}" role=viewer "${form[@]}" "password=another one"
exchange "POST /login: carol with that password" "200 $json {\"user\":\"carol\"}" \
    /login -c "$temp/carol" "${form[@]}" user=carol "${form[@]}" "password=a+b & c=100% ü"
exchange "GET /api/users as carol, a viewer" "403 $json {\"error\":\"Your role does not allow this.\"}" \
    /api/users -b "$temp/carol"
exchange "DELETE /api/users?name=carol" "200 $json [$alice]" "/api/users?name=carol" "${jar[@]}" -X DELETE
exchange "DELETE /api/users?name=carol again" "409 $json {\"error\":\"There is no such user.\"}" \
    "/api/users?name=carol" "${jar[@]}" -X DELETE
exchange "DELETE /api/users?name=alice, the last administrator" "409 $json {\"error\":\"This is the last administrator.\"}" \
    "/api/users?name=alice" "${jar[@]}" -X DELETE
exchange "POST /logout from the page of another port" "403 $json {\"error\":\"Another site has sent this request.\"}" \
    /logout "${jar[@]}" -X POST -H "Origin: http://127.0.0.1:1"
exchange "DELETE /" "405 text/html; charset=UTF-8 Method Not Allowed" / -X DELETE
exchange "GET / by the name of another site" "421 $json {\"error\":\"The camera is not known by this name.\"}" \
    / -H "Host: example.com"
await "},{" /api/events  # a signal may arrive after the answer to the request that caused it
exchange "GET /api/events: the last UsersChanged" "200 $json [$event,$event]" /api/events "${jar[@]}"

await '"now":1' /api/camera
exchange "GET /api/camera" "200 $json {\"network\":{\"[System]Hostname\":\"$(uname -n)\"*},\
\"viewers\":{\"now\":1,\"guaranteed\":4},\"ptz\":{\"polling\":true},\"audio\":*,\
\"registration\":{\"registered\":$registered,\"synced\":false},\
\"services\":[{\"name\":\"com.brelk.analytics\",\"deviceType\":\"system\"},*],\"silent\":[],\"updated\":*" /api/camera "${jar[@]}"
call 1 streamInfo GetCurrentVideoConnections main
await '"number":2,' /api/alerts
exchange "GET /api/alerts" "200 $json {\"alerts\":[{\"number\":1,*\"rule\":\"Front fence\",*},{\"number\":2,*}],\"latest\":*}" \
    /api/alerts "${jar[@]}"
exchange "GET /api/alerts?after=1" "200 $json {\"alerts\":[{\"number\":2,*" "/api/alerts?after=1" "${jar[@]}"
exchange "GET /live without a login" "401 $json {\"error\":\"Please log in.\"}" /live
# The stream of pictures never ends.
fetch --max-time 3 "${jar[@]}" -o "$temp/live" -w '%{http_code} %{content_type}' "$site/live" >"$temp/live.log" 2>/dev/null || true
frames=$(grep -a -c '^X-Frame: ' "$temp/live") || true
step "GET /live for three seconds" "$(cat "$temp/live.log")$([ "$frames" -lt 2 ] || echo ", pictures")" \
    "200 multipart/x-mixed-replace; boundary=frame, pictures"
if [ -z "$installed" ] && /usr/bin/python3 tests/examples/page-check --probe 2>"$temp/page.log"; then
    echo "Chromium uses the page with the keyboard alone, while the PTZ service is stuck and registration is killed for a time:"
    /usr/bin/python3 tests/examples/page-check "$site" "${pids[ptz-service]}" "${pids[registration-service]}" \
        "$folder/page.png" >"$temp/page.log" 2>"$temp/page.errors" || differences=$((differences + 1))
    while IFS=$'\t' read -r asked answer expected; do
        step "$asked" "$answer" "$expected"
    done <"$temp/page.log"
    cat "$temp/page.errors"
    wait "${pids[registration-service]}" || true
    start registration-service "$data/registration.ini" camera 3600
    wait_for_service registration-service smRegistration
else
    skip "the page in a browser" "it needs Chromium, its driver and Selenium, which scripts/demo --browser installs"
fi
stop analytics-source
expect_log audio-service "Connection 1 has ended"
call 0 lineout Query
for program in audio-service ptz-service stream-info-service registration-service directory-service networking-service; do
    stop "$program"
done
null="null,\"viewers\":null,\"ptz\":null,\"audio\":null,\"registration\":null,\"services\":null"
await '"network":null' /api/camera
await '"services",' /api/camera
exchange "GET /api/camera without those services" "200 $json {\"network\":$null,\"silent\":[\"network\",*" /api/camera "${jar[@]}"

if [ -z "$installed" ]; then
    head -c 1048576 /dev/zero >"$temp/body"
    body=(-H "Content-Type: application/octet-stream" -H "Expect:" --data-binary "@$temp/body")
    exchange "POST /measure: a body of 1 MiB" "200 $json {\"bytes\":1048576}" /measure "${body[@]}"
    printf . >>"$temp/body"
    exchange "POST /measure: one byte more" 400 /measure "${body[@]}"
    exchange "GET /fault, whose handler throws" 500 /fault
else
    exchange "GET /fault, which exists in tests only" "404 text/html; charset=UTF-8 Not Found" /fault
fi
exchange "GET /nothing" "404 text/html; charset=UTF-8 Not Found" /nothing
exchange "GET / with a carriage return in a header" 400 / -H "X-Note: a"$'\r'"Set-Cookie: session=0"
session=$(sed -n 's/.*session\t/session=/p' "$temp/cookies")
exchange "POST /logout" "200 $json {}" /logout "${jar[@]}" -X POST
exchange "GET /api/status with the session that has ended" "401 $json {\"error\":\"Please log in.\"}" \
    /api/status -b "$session"

stop_in_order "The security service" "$service_pid" "$temp/service.log"
service_pid=
await error /health
exchange "GET /health without the service" "503 $json {\"error\":\"The security service does not answer.\"}" /health
exchange "POST /login without the service" "503 $json {\"error\":\"The security service does not answer.\"}" \
    /login "${form[@]}" user=alice "${form[@]}" "password=correct horse"
stop_in_order "The web gateway" "$gateway_pid" "$temp/gateway.log"
gateway_pid=
