#!/bin/bash
# The whole chain: boot, service manager, queues of full size, logs of all kinds.
. ./lab.sh
prepare
start_server && start_store || exit 1
feed 1000
# What must be left alone, however long it waits.
for odd in 0600 0664 0400; do
  gzip -c /proc/version > $logs/debug/mode_$odd.gz && chmod $odd $logs/debug/mode_$odd.gz
done
echo "no archive" > $logs/debug/notes.txt

ls /dev/mqueue > /results/queues_before
start_service || exit 1
systemctl show log_consumer -p ActiveState,SubState,Type,WatchdogUSec > /results/ready
wait_for 60 test -e /dev/mqueue/log_consumer
stat -c '%a %U' /dev/mqueue/log_consumer > /results/queue_mode
/payload/bin/ppctl queues --json > /results/queues

wait_for 900 nothing_waits
restarted() { [ "$(systemctl show log_consumer -p NRestarts --value)" -ge 1 ]; }
wait_for 120 restarted
collect
