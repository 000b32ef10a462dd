# Sourced by the end-to-end scripts: a server namespace and a router namespace
# joined by a veth pair, with names unique to this run so that tests can run
# side by side.
#   netns_names PREFIX          sets srv, rtr, veth_a, veth_b
#   netns_pair [ROUTER_ADDRESS] makes them: the server end gets 192.168.88.2/24;
#                               the router end ROUTER_ADDRESS/24 when given
#                               (a router that has just booted has none).
#                               Returns 2 when this machine cannot make
#                               namespaces at all, 1 when a later step fails.
#   netns_remove                deletes both namespaces (and so the pair)
#
# The scripts bound each program they start with `timeout --foreground`. Without
# --foreground, timeout passes a stop on to its whole process group and follows
# it with SIGCONT; a sanitizer build checking for leaks as it exits stops its
# own threads by ptrace at that moment, the SIGCONT cancels that stop, and the
# program never ends (seen 2 times in 40 with a minimal program).

netns_names() {
  local id=$$$RANDOM
  srv=${1}s$id
  rtr=${1}r$id
  veth_a=${1}a$id
  veth_b=${1}b$id
  veth_a=${veth_a:0:15}
  veth_b=${veth_b:0:15}
}

netns_pair() {
  ip netns add "$srv" || return 2
  ip netns add "$rtr" || return 1
  ip link add "$veth_a" type veth peer name "$veth_b" || return 1
  ip link set "$veth_a" netns "$srv"
  ip link set "$veth_b" netns "$rtr"
  ip -n "$srv" addr add 192.168.88.2/24 dev "$veth_a"
  ip -n "$srv" link set "$veth_a" up
  ip -n "$srv" link set lo up
  [ -n "${1:-}" ] && ip -n "$rtr" addr add "$1/24" dev "$veth_b"
  ip -n "$rtr" link set "$veth_b" up
  ip -n "$rtr" link set lo up
}

netns_remove() {
  ip netns del "$srv" 2> /dev/null
  ip netns del "$rtr" 2> /dev/null
  return 0
}
