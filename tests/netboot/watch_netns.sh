#!/bin/bash
# The watch for other boot servers end to end: three network namespaces on
# one bridge. Tarnlift serves network booting in one, a second DHCP server
# (dnsmasq with an address range) runs in another, and a booting router in
# the third broadcasts its BOOTP request; both servers answer, and Tarnlift
# logs "another boot server answered <MAC>: <dnsmasq's address>" once. A
# second case holds port 68 before Tarnlift starts: it says the watch is
# off and serves all the same. The window case runs tarnlift.exe under Wine
# with network booting left on in its settings: the "PXE Booter" thread logs
# the same line. Nothing leaves the namespaces; they are removed on every
# exit path.
#
# usage: watch_netns.sh CASE TARNLIFT_COMMAND BOOTP_CLIENT
#   CASE: serve | netboot | held | wine | window
#   TARNLIFT_COMMAND may be several words (e.g. "wine /path/tarnlift-cli.exe");
#   for window, the path of tarnlift.exe.
#   BOOTP_CLIENT: tools/bootpclient, or tests/netboot/bootp_peer.py.
#   GUIPROBE (window only): reads the window's status bar, where the line
#   shows too.
# Exit 77 (skipped) when not root, or without ip, dnsmasq or python3.
set -u
case_name=$1
tarnlift_cmd=$2
bootp_client=$3
probe=${4:-}

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
command -v python3 > /dev/null || skip "needs python3"
dnsmasq=$(command -v dnsmasq || echo /usr/sbin/dnsmasq)
[ -x "$dnsmasq" ] || skip "needs dnsmasq"
[ -e "$bootp_client" ] || skip "no BOOTP client at $bootp_client"
if [ "$case_name" = window ] && [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run > /dev/null || skip "no display and no xvfb-run"
  exec xvfb-run -a "$0" "$@"
fi
first_word=${tarnlift_cmd%% *}
# shellcheck source=../lib/hold_udp_port.sh
source "$(dirname "$0")/../lib/hold_udp_port.sh"
command -v "$first_word" > /dev/null 2>&1 || [ -x "$first_word" ] || skip "no $first_word"

id=$$$RANDOM
srv=tlws$id; rtr=tlwr$id; dhcp=tlwd$id
veth_srv=tlwa$id; veth_srv=${veth_srv:0:15}
veth_srv_br=tlwb$id; veth_srv_br=${veth_srv_br:0:15}
veth_dhcp=tlwc$id; veth_dhcp=${veth_dhcp:0:15}
veth_dhcp_br=tlwe$id; veth_dhcp_br=${veth_dhcp_br:0:15}
work=$(mktemp -d /tmp/tl-watch-XXXXXX)
server_pid=
dnsmasq_pid=
holder_pid=
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2> /dev/null && wait "$server_pid" 2> /dev/null
  [ -n "$dnsmasq_pid" ] && kill "$dnsmasq_pid" 2> /dev/null && wait "$dnsmasq_pid" 2> /dev/null
  [ -n "$holder_pid" ] && kill "$holder_pid" 2> /dev/null && wait "$holder_pid" 2> /dev/null
  for ns in "$srv" "$rtr" "$dhcp"; do ip netns del "$ns" 2> /dev/null; done
  [ -n "${WINEPREFIX:-}" ] && [ -d "${WINEPREFIX:-}" ] && WINEPREFIX=$WINEPREFIX wineserver -k 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
  echo "FAIL ($case_name): $*"
  echo "--- server stderr (tail)"; tail -40 "$work/server.err" 2> /dev/null
  echo "--- dnsmasq (tail)"; tail -20 "$work/dnsmasq.log" 2> /dev/null
  exit 1
}

# The router's namespace holds the bridge (the segment); the server and the
# DHCP server each hang on it by a veth pair. The router sends from the
# bridge device itself.
ip netns add "$srv" || skip "cannot create network namespaces"
ip netns add "$rtr" || fail "namespace"
ip netns add "$dhcp" || fail "namespace"
ip -n "$rtr" link add br0 type bridge || fail "cannot make a bridge"
ip link add "$veth_srv" type veth peer name "$veth_srv_br" || fail "veth"
ip link add "$veth_dhcp" type veth peer name "$veth_dhcp_br" || fail "veth"
ip link set "$veth_srv" netns "$srv"
ip link set "$veth_dhcp" netns "$dhcp"
ip link set "$veth_srv_br" netns "$rtr"
ip link set "$veth_dhcp_br" netns "$rtr"
ip -n "$rtr" link set "$veth_srv_br" master br0 up
ip -n "$rtr" link set "$veth_dhcp_br" master br0 up
ip -n "$rtr" addr add 192.168.88.1/24 dev br0
ip -n "$rtr" link set br0 up
ip -n "$srv" addr add 192.168.88.2/24 dev "$veth_srv"
ip -n "$srv" link set "$veth_srv" up
ip -n "$dhcp" addr add 192.168.88.3/24 dev "$veth_dhcp"
ip -n "$dhcp" link set "$veth_dhcp" up
for ns in "$srv" "$rtr" "$dhcp"; do ip -n "$ns" link set lo up; done

# The second server: DHCP and plain BOOTP for a range, no DNS. It
# broadcasts every reply, as it does for a PXE ROM that asks for that.
ip netns exec "$dhcp" "$dnsmasq" --no-daemon --conf-file=/dev/null --port=0 --interface="$veth_dhcp" \
  --bind-interfaces --dhcp-range=192.168.88.100,192.168.88.150,255.255.255.0,1h --bootp-dynamic --dhcp-broadcast \
  --no-ping --dhcp-leasefile="$work/leases" --pid-file= --user=root --log-dhcp --log-facility=- > "$work/dnsmasq.log" 2>&1 &
dnsmasq_pid=$!

if [ "$case_name" = held ]; then
  # A DHCP client of the server's machine holding port 68 on its own.
  hold_udp_port "$srv" 0.0.0.0 68 "$work/holder.out" || fail "could not hold port 68"
fi

wait_ready=200
if [ "$case_name" = wine ] || [ "$case_name" = window ]; then
  export WINEPREFIX=$work/wineprefix WINEDEBUG=-all
  wait_ready=600
fi
if [ "$case_name" = window ]; then
  # Network booting as the settings dialog leaves it: on, for 192.168.88.1.
  # The Wine server starts inside the server namespace, as the program does.
  settings='HKCU\SOFTWARE\Quenlark\NetServer'
  ip netns exec "$srv" wine reg add "$settings" /v "PXE Enabled" /t REG_DWORD /d 1 /f > /dev/null 2>&1 ||
    fail "cannot write the settings"
  ip netns exec "$srv" wine reg add "$settings" /v "PXE Client Address" /t REG_DWORD /d 0x0158a8c0 /f \
    > /dev/null 2>&1 || fail "cannot write the settings"
  mkdir -p "$work/start"
  # The window's log lines go to its standard output; both streams are read
  # as its log.
  (cd "$work/start" && exec ip netns exec "$srv" timeout --foreground 300 wine "$tarnlift_cmd" > "$work/server.err" 2>&1) &
  server_pid=$!
else
  subcommand=netboot
  [ "$case_name" = serve ] && subcommand="serve --netboot"
  # shellcheck disable=SC2086
  (HOME=$work XDG_CONFIG_HOME=$work/config exec ip netns exec "$srv" timeout --foreground 300 $tarnlift_cmd $subcommand \
    --client-address 192.168.88.1 > "$work/server.out" 2> "$work/server.err") &
  server_pid=$!
fi
for _ in $(seq 1 $wait_ready); do
  grep -q "found: true" "$work/server.err" 2> /dev/null && break
  kill -0 "$server_pid" 2> /dev/null || fail "server ended early"
  sleep 0.1
done
grep -q "found: true" "$work/server.err" || fail "server did not find its interface"
# dnsmasq's answer ends the client's tries, so the first request must be
# heard: wait for the BOOTP socket and the watch's own.
wait_udp_bound "$srv" 67 || fail "the server never bound UDP port 67"
wait_udp_bound "$srv" 68 || fail "nothing bound UDP port 68"
kill -0 "$dnsmasq_pid" 2> /dev/null || fail "dnsmasq did not start"

bootp() {  # MAC
  if [[ $bootp_client == *.py ]]; then
    ip netns exec "$rtr" python3 "$bootp_client" --interface br0 --vendor-class Powerboot --mac "$1" --timeout 20
  else
    ip netns exec "$rtr" "$bootp_client" --interface br0 --vendor-class Powerboot --mac "$1" --timeout 20
  fi
}

# Waits up to 20 s for a pattern in the server's log (or in FILE).
logged() {  # PATTERN [FILE]
  for _ in $(seq 1 200); do
    grep -q "$1" "${2:-$work/server.err}" && return 0
    sleep 0.1
  done
  return 1
}

mac=02:00:5E:00:08:01
out=$(bootp $mac) || fail "BOOTP: $out"
echo "BOOTP: $out"
logged "bootp req received" || fail "Tarnlift did not hear the request"
logged "BOOTP(.*) 192\.168\.88\.1[0-9][0-9] " "$work/dnsmasq.log" || fail "dnsmasq did not answer"

case $case_name in
  held)
    logged "netboot: not watching for other boot servers: cannot bind UDP port 68" || fail "no line saying the watch is off"
    grep "not watching" "$work/server.err"
    [ "$(grep -c "not watching" "$work/server.err")" = 1 ] || fail "the watch-off line more than once"
    sleep 1
    grep -q "another boot server" "$work/server.err" && fail "a watch line without a watch"
    kill -0 "$server_pid" 2> /dev/null || fail "the server ended without its watch"
    grep -q "sendRes\|bootp req received" "$work/server.err" || fail "not serving"
    ;;
  *)
    line="another boot server answered $mac: 192.168.88.3"
    logged "$line" || fail "no watch line naming dnsmasq"
    grep "another boot server" "$work/server.err"
    # Asked again within the minute: the same server is not reported twice,
    # and Tarnlift never reports its own replies.
    out=$(bootp $mac) || fail "second BOOTP: $out"
    sleep 1
    [ "$(grep -c "another boot server" "$work/server.err")" = 1 ] || fail "reported more than once a minute"
    grep -q "another boot server answered .*: 192.168.88.2" "$work/server.err" && fail "reported its own reply"
    grep -q "not watching" "$work/server.err" && fail "the watch was off"
    if [ "$case_name" = window ] && [ -n "$probe" ]; then
      # The window shows the line where its status lines go: the status bar.
      shown=""
      for _ in $(seq 1 20); do
        shown=$(wine "$probe" win "Quenlark Tarnlift" 10000 -- text 102 2>> "$work/probe.err" | tr -d '\r')
        [ "$shown" = "$line" ] && break
        sleep 0.25
      done
      [ "$shown" = "$line" ] || fail "status bar shows '$shown', expected '$line'"
      echo "status bar: $shown"
    fi
    kill -0 "$server_pid" 2> /dev/null || fail "the server ended"
    ;;
esac
echo "PASS ($case_name)"
