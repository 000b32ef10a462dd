# Sourced by tests that need another program of the server's machine holding
# a UDP port, as a local DHCP client or TFTP service would.
#   hold_udp_port NAMESPACE ADDRESS PORT OUTFILE
#       binds ADDRESS:PORT (without address reuse) in NAMESPACE for five
#       minutes; sets holder_pid; returns 1 when the port could not be held.
#   wait_udp_bound NAMESPACE PORT
#       waits up to 30 s until some program in NAMESPACE has bound UDP PORT;
#       returns 1 when none did.
hold_udp_port() {
  ip netns exec "$1" python3 -c '
import socket, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], int(sys.argv[2])))
print("holding", flush=True)
time.sleep(300)' "$2" "$3" > "$4" 2>&1 &
  holder_pid=$!
  for _ in $(seq 1 50); do grep -q holding "$4" && return 0; sleep 0.1; done
  grep -q holding "$4"
}

# A server says it found its interface before its sockets are bound; a
# broadcast sent in between reaches nobody. Tests that need the first
# request heard (because another server's answer ends the client's tries)
# wait for the socket itself.
wait_udp_bound() {
  for _ in $(seq 1 300); do
    [ -n "$(ip netns exec "$1" ss -Hlun "sport = :$2" 2> /dev/null)" ] && return 0
    sleep 0.1
  done
  return 1
}
