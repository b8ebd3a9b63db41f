#!/usr/bin/env bash
# Repeated transfers by vcctl send and recv between two hosts on this machine, under induced
# failures:
#
#     tools/dev/transfer-runs.sh rate 20 1024 [KIND]    20 files of 1 GiB; beside each the same with --raw
#     tools/dev/transfer-runs.sh cut 100 64 [KIND]      100 of 64 MiB, the channel cut at a random moment
#     tools/dev/transfer-runs.sh pairs 50 1 [KIND]      50 of 1 MiB at once, each through its own streams
#     tools/dev/transfer-runs.sh kill 50 64 [KIND]      50, with --resume, a host or tool killed at one
#
# Prints a line for each and exits with 1 if any file did not arrive intact. FOLDER (by default a
# temporary one) holds the files: in memory, it shows the rate without the disk. SEED changes the
# moments, VCCTL the tool (default build-release/tools/vcctl); RAW=0 omits --raw.
set -u
case ${1:-} in
    rate | cut | pairs | kill) ;;
    -h | --help) sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$0"; exit ;;
    *) echo "usage: $0 rate|cut|pairs|kill COUNT MIB [KIND], see --help" >&2; exit 2 ;;
esac
mode=$1; count=${2:-1}; size=${3:-64}; kind=${4:-tcp}
vcctl=$(realpath "${VCCTL:-$(dirname "$0")/../../build-release/tools/vcctl}")
folder=${FOLDER:-$(mktemp -d)}; near=nvx${$}a; far=nvx${$}b; RANDOM=${SEED:-1}
pids=()

finish() {
    for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null; done
    wait 2>/dev/null
    rm -f /dev/shm/{$near,$far}.* /tmp/norvo/{$near,$far}.* "$folder"/{original,copy,copy.part,raw,near,far} "$folder"/copy.*
    [ -n "${FOLDER:-}" ] || rm -rf "$folder"
}
trap finish EXIT
trap 'exit 130' INT TERM

in_session() { NORVO_VDI_NAMESPACE=$1 HOME=$folder exec "${@:2}"; }
now() { date +%s%N; }
start_near() {
    in_session $near "$vcctl" host --kind "$kind" --listen "$address" >"$folder/near" 2>&1 & near_host=$!
    pids+=("$near_host")
}
start_far() {
    in_session $far "$vcctl" host --kind "$kind" --connect "$address" >"$folder/far" 2>&1 & far_host=$!
    pids+=("$far_host")
}
start_recv() { in_session $far "$vcctl" recv Media "$folder/copy" "${resume[@]}" & recv=$!; pids+=("$recv"); }
start_send() { in_session $near "$vcctl" send Media "$folder/original" "${resume[@]}" & send=$!; pids+=("$send"); }
peak() { awk '/VmHWM/ { print int($2 / 1024) }' "/proc/$1/status" 2>/dev/null || echo 0; }
rate() { awk -v b="$size" -v n="$1" 'BEGIN { printf "%.1f", b / (n / 1e9) }'; }
# Sleeps a random time of up to the given milliseconds (the duration of a whole transfer).
pause_within() { sleep "$(awk -v r="$RANDOM" -v m="$1" 'BEGIN { printf "%.3f", r / 32768 * m / 1000 }')"; }

go_wrong() {
    case $mode in
        cut) kill -HUP "$far_host" ;;
        kill)
            victim=$((RANDOM % 4))
            case $victim in
                0) kill -9 "$near_host"; wait "$near_host" 2>/dev/null; start_near ;;
                1) kill -9 "$far_host"; wait "$far_host" 2>/dev/null; start_far ;;
                2) if kill -9 "$recv" 2>/dev/null; then wait "$recv" 2>/dev/null; start_recv; fi ;;
                3) if kill -9 "$send" 2>/dev/null; then wait "$send" 2>/dev/null; start_send; fi ;;
            esac ;;
    esac
}

# How long the same takes with plain messages, without checking what arrived.
raw_time() {
    in_session $far "$vcctl" recv Generic --raw "$folder/raw" 2>/dev/null & local receiver=$!
    pids+=("$receiver"); sleep 0.5
    local begun; begun=$(now)
    in_session $near "$vcctl" send Generic --raw "$folder/original" & wait $!
    local took=$(($(now) - begun))
    kill -TERM $receiver; wait $receiver 2>/dev/null; rm -f "$folder/raw"
    echo $took
}

# All transfers at once: how long until the last has ended, and how many arrived.
run_pairs() {
    local begun i bad=0 ends=(); begun=$(now)
    for i in $(seq "$count"); do
        in_session $far "$vcctl" recv "Pair$i" "$folder/copy.$i" 2>/dev/null & ends+=("$!")
        in_session $near "$vcctl" send "Pair$i" "$folder/original" 2>/dev/null & ends+=("$!")
    done
    pids+=("${ends[@]}")
    wait "${ends[@]}"
    local took=$(($(now) - begun))
    for i in $(seq "$count"); do cmp -s "$folder/original" "$folder/copy.$i" || bad=$((bad + 1)); done
    echo "$((count - bad)) of $count arrived in $((took / 1000000)) ms"
    [ $bad = 0 ]
}

resume=(); [ "$mode" = kill ] && resume=(--resume --wait 15)
address=127.0.0.1:0
start_near
for _ in $(seq 50); do
    address=$(awk '/^listening on/ { print $NF; exit }' "$folder/near"); [ -n "$address" ] && break; sleep 0.1
done
[ -n "$address" ] || { cat "$folder/near" >&2; exit 1; }
start_far
head -c "${size}M" /dev/urandom >"$folder/original"
if [ "$mode" = pairs ]; then
    run_pairs
    exit
fi
usual=1000; bad=0
for i in $(seq "$count"); do
    rm -f "$folder/copy" "$folder/copy.part"
    begun=$(now)
    start_recv; start_send
    what=; if [ "$mode" != rate ] && [ "$i" -gt 1 ]; then
        pause_within "$usual"
        go_wrong; what=" victim ${victim:--}"
    fi
    tops="$(peak "$near_host") $(peak "$far_host")"
    wait "$send"; sent=$?; took=$(($(now) - begun)); wait "$recv"; received=$?
    [ "$i" = 1 ] && usual=$((took / 1000000))
    result=good
    # A tool killed after the other had succeeded, and so after the file was complete under its
    # name, finds no partner when restarted.
    [ "${victim:-}" = 3 ] && [ $received = 0 ] && sent=0
    [ "${victim:-}" = 2 ] && [ $sent = 0 ] && received=0
    if [ $sent != 0 ] || [ $received != 0 ] || ! cmp -s "$folder/original" "$folder/copy"; then
        result=BAD; bad=$((bad + 1))
    fi
    line="$i $result send $sent recv $received $((took / 1000000)) ms $(rate $took) MiB/s hosts MiB $tops$what"
    [ "$mode" = rate ] && [ "${RAW:-1}" = 1 ] && line+=" raw $(rate "$(raw_time)") MiB/s"
    echo "$line"
done
echo "$((count - bad)) of $count arrived"
[ $bad = 0 ]
