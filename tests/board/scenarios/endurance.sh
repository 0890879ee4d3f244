#!/bin/bash
# Logs come all the time, and the service manager starts the service again after each of its passes.
# Settings: hours, files.
. ./lab.sh
: "${hours:?}" "${files:?}"
service_options="-d2 $service_options"
restart_delay=300s
prepare
start_server && start_store || exit 1
start_service || exit 1

# Often enough to see every pass.
sample_for_a_minute() {
  for _ in 1 2 3 4; do
    pause 15
    sample
  done
}

# As many as belong to the time that has passed; the last half hour is for what still waits.
begin=$SECONDS
feed_evenly() {
  local due=$((files * (SECONDS - begin) / (hours * 3600 - 1800)))
  feed $(((due < files ? due : files) - fed))
}
while ((SECONDS - begin < hours * 3600)); do
  feed_evenly
  show_progress
  sample_for_a_minute
done
echo "$EPOCHREALTIME $(waiting)" > /results/faults_end
wait_for 3600 nothing_waits
echo "$EPOCHREALTIME $(waiting)" > /results/settled
collect
