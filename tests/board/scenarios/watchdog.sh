#!/bin/bash
# The service manager's watchdog through hours with a bad server. Settings: hours, and in `server`:
#   slow      each answer takes almost as long as the service waits; some logs always wait
#   nameless  its name cannot be resolved, and finding that out takes the resolver its whole time;
#             Wi-Fi comes anew every three hours
#   dead      nobody listens
#   stopped   nothing is wrong with the server, but the process is stopped, as often as `stops` says
#   stuck     likewise its configuration thread alone, the first that the process starts
. ./lab.sh
: "${hours:?}" "${stops:?}" "${server:?}"
RANDOM=1
prepare
start_server && start_store || exit 1

wifi() {
  echo "{\"interfaces\":[{\"id\":1,\"wifiStatus\":{\"status\":\"$1\"}},{\"id\":2}]}" |
    /payload/bin/ppctl publish
}
keep_some_waiting() { feed $((5 - $(waiting))); }
since_wifi=$SECONDS
renew_wifi() {
  ((SECONDS - since_wifi >= 3 * 3600)) || return
  wifi disassociated && pause 60 && wifi associated
  since_wifi=$SECONDS
}

# A name server that takes every question and answers none.
silence_name_server() {
  echo "nameserver 127.0.0.1" > /etc/resolv.conf
  mkdir -p /run/systemd/system
  printf '[Socket]\nListenDatagram=127.0.0.1:53\n' > /run/systemd/system/silent.socket
  printf '[Service]\nExecStart=/bin/sleep infinity\n' > /run/systemd/system/silent.service
  systemctl daemon-reload && systemctl start silent.socket
}

stop_process() { kill -STOP "$1"; }
stop_configuration_thread() {
  local task thread=
  until [ -n "$thread" ]; do
    for task in "/proc/$1/task/"*; do
      task=${task##*/}
      ((task > $1 && task < ${thread:-1 << 30})) && thread=$task
    done
  done
  /payload/bin/stop_thread "$thread" 2>> /results/stop_thread.err &
}

# stop_it N COMMAND: the process is stopped N times, each time at a random moment of a good half
# minute.
stop_it() {
  local pid number
  for ((number = 0; number < $1; ++number)); do
    pause $((5 + RANDOM % 30))
    until service_pid pid; do pause 0.1; done
    $2 "$pid" && echo "$EPOCHREALTIME $pid" >> /results/stops
    while [ -e "/proc/$pid" ]; do pause 1; done
  done
}

feed 14
case $server in
  slow)
    tell_server '{"do":"default","delay_ms":170000}'
    restart_delay=20s
    start_service || exit 1
    pass_time "$hours" keep_some_waiting
    tell_server '{"do":"clear"}'
    ;;
  nameless)
    silence_name_server || exit 1
    service_options="-slogs.example.invalid -p8080"
    start_service || exit 1
    pass_time "$hours" renew_wifi
    echo "127.0.0.1 logs.example.invalid" >> /etc/hosts
    ;;
  dead)
    tell_server '{"do":"pause"}'
    start_service || exit 1
    pass_time "$hours" true
    tell_server '{"do":"resume"}'
    ;;
  stopped)
    start_service || exit 1
    stop_it "$stops" stop_process
    ;;
  stuck)
    start_service || exit 1
    stop_it "$stops" stop_configuration_thread
    ;;
esac
echo "$EPOCHREALTIME $(waiting)" > /results/faults_end
wait_for 1800 nothing_waits
echo "$EPOCHREALTIME $(waiting)" > /results/settled
collect
