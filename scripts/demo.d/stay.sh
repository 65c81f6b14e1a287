# What scripts/demo --stay does: it starts everything, leaves it running and prints how to use it.
# shellcheck shell=bash disable=SC2034,SC2154

"$programs/security-demo"
start_services
start analytics-source 10000
start_gateway
disown -a
cat <<END

The camera's page: open $site/ in a browser of this machine and log in as "alice" with the password "correct horse".

The security service runs as process $service_pid, the web gateway as $gateway_pid${bus_pid:+, the bus as $bus_pid}, the others as
${pids[*]}. Their files and logs are in $temp.

  export DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SYSTEM_BUS_ADDRESS
  $programs/security-client authenticate alice "correct horse"
  $programs/security-client watch &
  $programs/security-client add carol viewer "some password"
  gdbus call --system --dest com.brelk.system.security --object-path /com/brelk/system/security \\
      --method com.brelk.system.security.GetUsers
  gdbus monitor --system --dest com.brelk.system.security
  $zarip_bus list
  $zarip_bus describe lineout
  $zarip_bus call lineout Connect "Living room" 16000 1
  $zarip_bus call smRegistration ForceRegister $echo_name
  $zarip_bus monitor analytics

To see how the page reports a service that is gone, run: kill $service_pid

To stop:

  kill $gateway_pid $service_pid ${pids[*]}${bus_pid:+ $bus_pid}; rm -rf $temp /tmp/sockets/$echo_name
END

trap - EXIT INT TERM
