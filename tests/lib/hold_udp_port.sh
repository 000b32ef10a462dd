# Sourced by tests that need another program of the server's machine holding
# a UDP port, as a local DHCP client or TFTP service would.
#   hold_udp_port NAMESPACE ADDRESS PORT OUTFILE
#       binds ADDRESS:PORT (without address reuse) in NAMESPACE for five
#       minutes; sets holder_pid; returns 1 when the port could not be held.
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
