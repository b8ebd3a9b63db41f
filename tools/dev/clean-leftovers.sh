#!/usr/bin/env bash
# clean-leftovers.sh STAMP: removes what killed tests left in shared memory and in
# /tmp/norvo: objects of this user, newer than the file STAMP, whose test process is gone.
source "$(dirname "$0")/common.sh"

stamp=$1
for folder in /dev/shm /tmp/norvo; do
    [ -d "$folder" ] || continue
    find "$folder" -maxdepth 1 -user "$(id -u)" -newer "$stamp" -name '*nvt[0-9]*.*' -print0 |
        while IFS= read -r -d '' path; do
            pid=${path##*nvt}
            pid=${pid%%.*}
            [[ $pid =~ ^[0-9]+$ ]] && ! kill -0 "$pid" 2>/dev/null && rm -rf -- "$path"
        done
done
