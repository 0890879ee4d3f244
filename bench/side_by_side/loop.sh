#!/bin/sh
# What one would write instead of the service: finds what waits, leaves out what a process holds
# open, pauses, sends, marks as sent. The same form, the same pause, the same marks.
#
#   loop.sh URL [OPTION OF CURL...]
#
# CURL, when set, stands before the sending command: the measurement's bookkeeper.
url=$1
shift
find /tarv/data/logs -type f -perm 0644 -name '*.gz' | sort | head -n 20 | while read -r file; do
  [ -z "$(fuser "$file" 2>/dev/null)" ] || continue
  sleep 5
  # Without "Expect:" curl would ask before each larger body whether it may send it.
  $CURL curl --silent --show-error --fail --output /dev/null --header Expect: "$@" \
    -F SenderId=AB12345678 -F LogType=Debug -F "CreateTime=$(date +%s)" -F FileType=.gz \
    -F "Data=@$file;type=application/octet-stream" "$url" &&
    chmod 0400 "$file"
done
