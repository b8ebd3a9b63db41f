#!/usr/bin/env bash
# show-rdp.sh: a session through FreeRDP's client and a server, both on this machine, with local
# programs at both ends. Uses the build tree build-release.
source "$(dirname "$0")/common.sh"

tree=$root/build-release
library=$tree/src/virtualchannel/src/tc/libNorvoCrewsVirtualChannel.so.1
for program in xfreerdp Xvfb openssl; do
    command -v $program >/dev/null || fail "$program is not here: install freerdp2-x11, xvfb and openssl"
done
[ -x "$tree/hosts/freerdp-server/norvo-rdp-server" ] ||
    fail "the RDP hosts are not built: install freerdp2-dev and libwinpr2-dev"

work=$(mktemp -d)
clean_up() {
    local pid
    for pid in $(jobs -pr | tac); do
        kill "$pid" 2>/dev/null || continue
        wait "$pid" 2>/dev/null || true
    done
    [ -z "${client:-}" ] || rm -f "$(printf '/dev/shm/com.freerdp.xfreerdp.tsmf_%016X' "$client")"
    rm -rf "$work" /dev/shm/"rdp$$"[nf].* /tmp/norvo/"rdp$$"[nf].*
}
trap clean_up EXIT
trap 'exit 130' INT TERM

mkdir "$work/n" "$work/f"
# at n|f COMMAND...: runs on the user's machine (near), or in the desktop (far).
at() { env HOME="$work/$1" NORVO_VDI_NAMESPACE="rdp$$$1" "${@:2}"; }
# The same in the background: $! is the command's own process.
start_at() { env HOME="$work/$1" NORVO_VDI_NAMESPACE="rdp$$$1" "${@:2}" & }
# Waits up to 20 s for a line with the pattern in a file; prints its last word.
last_word_of() {
    local i
    for ((i = 0; i < 200; i++)); do
        grep -m 1 "$1" "$2" 2>/dev/null | grep -o '[^ :]*$' && return
        sleep 0.1
    done
    fail "no '$1' in: $(cat "$2")"
}
milliseconds_since() { say $((($(date +%s%N) - $1) / 1000000)); }
vcctl=$tree/tools/vcctl

openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -keyout "$work/key8" -out "$work/cert" 2>/dev/null
openssl rsa -traditional -in "$work/key8" -out "$work/key" 2>/dev/null
start_at f "$tree/hosts/freerdp-server/norvo-rdp-server" --library "$library" --certificate "$work/cert" \
    --key "$work/key" >"$work/server.log" 2>&1
port=$(last_word_of '^listening' "$work/server.log")
say "server  listens on 127.0.0.1:$port, with the library in it"

start_at n Xvfb -displayfd 3 -screen 0 320x240x24 -nolisten tcp 3>"$work/display" 2>/dev/null
display=$(last_word_of '[0-9]' "$work/display")
began=$(date +%s%N)
start_at n env DISPLAY=":$display" LD_PRELOAD="$tree/tests/hosts/libnorvo_addin_shim.so" \
    NORVO_TEST_ADDIN="$tree/hosts/freerdp/libNRVOCW-client.so" \
    xfreerdp "/v:127.0.0.1:$port" /u:user /p:none /sec:tls /cert:ignore "/vc:NRVOCW,library=$library" \
    >"$work/client.log" 2>&1
client=$!
say "client  xfreerdp /v:127.0.0.1:$port /vc:NRVOCW"
last_word_of '^client joined' "$work/server.log" >/dev/null
say "joined  after $(milliseconds_since "$began") ms"

head -c 8388608 /dev/urandom >"$work/n/original.bin"
start_at f "$vcctl" recv Media "$work/f/copy.bin" --wait 20
receiver=$!
began=$(date +%s%N)
at n "$vcctl" send Media "$work/n/original.bin" --wait 20
wait "$receiver"
cmp "$work/n/original.bin" "$work/f/copy.bin"
say "file    8 MiB from the user's machine to the desktop in $(milliseconds_since "$began") ms, the same there"

chat() { # FROM TO STREAM TEXT HEARD
    start_at "$2" "$vcctl" recv "$3" --lines --count 1 --wait 20 --raw >"$work/heard"
    local listener=$!
    sleep 0.5
    say "$4" | at "$1" "$vcctl" send "$3" --lines --wait 20 --raw
    wait "$listener"
    say "chat    $5: $(cat "$work/heard")"
}
chat n f Basic "Can you hear me over there?" "the desktop hears"
chat f n Generic "Loud and clear." "the user hears"

kill "$client"
wait "$client" || true
last_word_of '^client left' "$work/server.log" >/dev/null
say "end     the client has left; the server was told"
