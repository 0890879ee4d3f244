# shellcheck shell=bash
# What every payload does in the machine; sourced by it. The service is the unchanged program under
# the real service manager, with the lab's store and upload server beside it. Nothing here judges:
# it makes things happen and writes down what can be seen; scenario.py judges afterwards.
#
#   /payload/bin         the programs
#   /payload/seed/N      the bytes of the N-th log, and in seed.list "N PATH" where it belongs
#   /results             what goes back
set -u
logs=/tarv/data/logs
seconds_of_watchdog=30
restart_delay=500ms
service_options="-s127.0.0.1 -p8080"

# Line on standard output with the machine's time, seconds since 1970.
note() { echo "$EPOCHREALTIME $*"; }

prepare() {
  local directory
  for directory in reports measurements history/installation clp debug tlink UI demand tcomp wg rg \
    ppstat diagnostics logconsumer; do
    mkdir -p "$logs/$directory"
  done
  mkdir -p /payload/find  # the device's find comes first on the service's path
  ln -s /usr/bin/busybox /payload/find/find
}

# wait_for SECONDS COMMAND...: until the command succeeds; fails when the time is over.
wait_for() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $end ] || return 1
    pause 3
  done
  return 0
}

start_server() {
  /payload/bin/upload_server --port 8080 --control-port 8081 --json --out /results/requests \
    > /results/uploads.jsonl 2> /results/upload_server.err &
  server_pid=$!
  wait_for 30 grep -q listening /results/uploads.jsonl
}

# tell_server JSON: one command; its answer is printed.
tell_server() {
  local answer
  exec 9<> /dev/tcp/127.0.0.1/8081 || return 1
  echo "$1" >&9
  IFS= read -r -t 30 answer <&9
  exec 9>&-
  note "server told $1: $answer"
}

start_store() {
  cat > /payload/document.json << 'DOCUMENT'
{"serverAssigned": {"identities": {"sysId": "AB12345678"},
                    "security": {"nuvToken": {"encoded": "dG9rZW4="}}},
 "rgw": {"aapState": "bound"},
 "interfaces": [{"id": 1, "wifiStatus": {"status": "associated"}}, {"id": 2}],
 "system": {"clock": {"offset": -18000, "dstOffset": 3600, "enableDst": true}}}
DOCUMENT
  /payload/bin/pushpull_store --json --document /payload/document.json \
    > /results/store.jsonl 2> /results/store.err &
  store_pid=$!
  wait_for 30 grep -q '"ready"' /results/store.jsonl
}

# Returns when the service has reported that it is ready.
start_service() {
  mkdir -p /run/systemd/system
  cat > /run/systemd/system/log_consumer.service << UNIT
[Unit]
Description=log consumer
StartLimitIntervalSec=0
[Service]
Type=notify
ExecStart=/payload/bin/log_consumer $service_options
Environment=PATH=/payload/find:/usr/sbin:/usr/bin:/sbin:/bin
Restart=always
RestartSec=$restart_delay
WatchdogSec=$seconds_of_watchdog
LimitCORE=0
UNIT
  systemctl daemon-reload && systemctl start log_consumer
}

# service_pid VARIABLE: sets it to the service's process id; fails while it is down. No process is
# started for it: under emulation that costs more than all else here.
service_pid() {
  local candidate rest
  { while read -r candidate; do
      read -r rest < "/proc/$candidate/stat" || continue
      # Its own children carry its name until they become a shell, but they are not process 1's.
      [[ $rest == *"(log_consumer) "?" 1 "* ]] && printf -v "$1" %s "$candidate" && return
    done < /sys/fs/cgroup/system.slice/log_consumer.service/cgroup.procs; } 2> /dev/null
  return 1
}

# pause SECONDS, likewise without a process.
exec 7<> <(:)
pause() { read -r -t "$1" -u 7 || true; }

# The next N logs appear, each at once, whole and with its mode, as a producer has to do it.
fed=0
exec 8< /payload/seed.list
feed() {
  local number path count
  for ((count = 0; count < $1; ++count)); do
    read -r number path <&8 || return 1
    mv "/payload/seed/$number" "$path"
    echo "$number" >> /results/fed
    ((++fed))
  done
}

waiting() { find "$logs" -type f -perm 0644 -name '*.gz' | wc -l; }
nothing_waits() { [ "$(waiting)" = 0 ]; }

list_files() { find "$logs" -type f -printf '%m %C@ %T@ %s %p\n' > /results/files; }

# Ends everything and brings what can be seen into /results.
collect() {
  systemctl show log_consumer -p NRestarts,Result,ActiveState > /results/unit
  systemctl stop log_consumer
  kill "$server_pid" "$store_pid"
  wait "$server_pid" "$store_pid"
  list_files
  mv "$logs" /results/logs
  journalctl -o json --output-fields=MESSAGE,PRIORITY,SYSLOG_IDENTIFIER,SYSLOG_PID,_PID,UNIT \
    > /results/journal
}

# sample: a line about the service: time, process id, resident memory and its anonymous part (KiB),
# descriptors, threads. While a child process runs, descriptors come and go: then there is none.
# The process may end meanwhile, and what /proc says of it be torn: an empty key or an unset name would
# end more than this function.
sample() {
  local pid key value rest children="" text="" descriptors
  local -A status=()
  {
    service_pid pid || return
    read -r -d '' children < "/proc/$pid/task/$pid/children"
    descriptors=("/proc/$pid/fd/"*)
    read -r -d '' text < "/proc/$pid/status"
    while IFS=$': \t' read -r key value rest; do status[${key:-none}]=$value; done <<< "$text"
    [ -z "${children// /}" ] && [ -n "${status[VmRSS]:+${status[RssAnon]:+${status[Threads]:-}}}" ] &&
      echo "$EPOCHREALTIME $pid ${status[VmRSS]} ${status[RssAnon]} ${#descriptors[@]}" \
        "${status[Threads]}" >> /results/samples
  } 2> /dev/null
}

# For whoever watches the console of a machine that takes an hour: a line each virtual hour.
hours_shown=0
show_progress() {
  ((SECONDS / 3600 > hours_shown)) || return 0
  hours_shown=$((SECONDS / 3600))
  echo "virtual hour $hours_shown: $fed logs so far" > /dev/console
}

# pass_time HOURS COMMAND...: lets the machine's time pass; the command runs every ten minutes.
pass_time() {
  local end=$((SECONDS + $1 * 3600))
  shift
  while ((SECONDS < end)); do
    pause $((end - SECONDS < 600 ? end - SECONDS : 600))
    sample
    show_progress
    "$@"
  done
}
