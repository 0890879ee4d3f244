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
service_options="-s127.0.0.1 -p8080"

# Line on standard output with the machine's time, seconds since 1970.
note() { echo "$(date +%s.%N) $*"; }

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
    sleep 3
  done
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
{"serverAssigned": {"identities": {"sysId": "AB12345678"}, "security": {"nuvToken": {"encoded": "dG9rZW4="}}},
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
RestartSec=500ms
WatchdogSec=$seconds_of_watchdog
LimitCORE=0
UNIT
  systemctl daemon-reload && systemctl start log_consumer
}

# The service's process id, or nothing while it is down.
service_pid() { pgrep -o -x log_consumer; }

# The next N logs appear, each at once and finished, as a producer has to do it.
exec 8< /payload/seed.list
feed() {
  local number path count
  for ((count = 0; count < $1; ++count)); do
    read -r number path <&8 || return 1
    # No mode of it may be 0644 under a name with .gz before it is whole.
    cp "/payload/seed/$number" "${path%/*}/incoming" && chmod 0644 "${path%/*}/incoming" &&
      mv "${path%/*}/incoming" "$path"
    rm "/payload/seed/$number"
    echo "$number" >> /results/fed
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
