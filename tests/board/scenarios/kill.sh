#!/bin/bash
# Kills the service at random moments; the service manager starts it again. Settings: kills, seed.
. ./lab.sh
: "${kills:?}" "${seed:?}"
answer_delay_ms=400
RANDOM=$seed
service_options="-d2 $service_options"
prepare
start_server && start_store || exit 1
tell_server "{\"do\":\"default\",\"delay_ms\":$answer_delay_ms}"
exec 6< <(tail -n +2 -f /results/uploads.jsonl)
start_service || exit 1

# random FROM TO, both in milliseconds: a time in seconds.
random() {
  local ms=$(($1 + (RANDOM * 32768 + RANDOM) % ($2 - $1)))
  printf -v moment '%d.%03d' $((ms / 1000)) $((ms % 1000))
}

uploads=0
count_uploads() { while read -t 0 -u 6 && read -r -u 6 _; do ((++uploads)); done; }
await_upload() { read -r -t 40 -u 6 _ && ((++uploads)); }

# The files that wait cost two processes each at every start of the service.
keep_some_waiting() {
  count_uploads
  ((kill % 40 != 1)) || uploads=$((fed - $(waiting)))  # some were uploaded twice
  while ((fed - uploads < 3)); do feed 1 || return; done
}

for ((kill = 1; kill <= kills; ++kill)); do
  keep_some_waiting
  case $((RANDOM % 5)) in
    0 | 1) random 0 12000 ;;                   # anywhere, the start included
    2 | 3) await_upload; random 0 1100 ;;      # between the answer and the mark
    *) await_upload; random 4500 8500 ;;       # while the next file is on the wire
  esac
  pause "$moment"
  until service_pid pid; do pause 0.02; done
  kill -KILL "$pid" && echo "$EPOCHREALTIME $pid" >> /results/kills
done

note "kills end, $(waiting) files wait"
echo "$EPOCHREALTIME $(waiting)" > /results/faults_end
wait_for 1200 nothing_waits
echo "$EPOCHREALTIME $(waiting)" > /results/settled
collect
