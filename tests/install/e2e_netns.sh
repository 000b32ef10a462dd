#!/bin/bash
# End-to-end installations in two network namespaces joined by a veth pair:
# `tarnlift serve` in one, the router simulator in the other. Nothing leaves
# the namespaces; they are removed on every exit path.
#
# usage: e2e_netns.sh CASE SERVE_COMMAND ROUTERSIM MKPKG [BOOTPCLIENT]
#   SERVE_COMMAND may be several words (e.g. "wine /path/tarnlift-cli.exe").
# Exit 77 (skipped) when not root, without `ip`, or without a needed program.
set -u
case_name=$1
serve_cmd=$2
routersim=$3
mkpkg=$4

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
[ -x "$routersim" ] || skip "no router simulator at $routersim"
[ -x "$mkpkg" ] || skip "no package writer at $mkpkg"
for word in $serve_cmd; do
  command -v "$word" > /dev/null 2>&1 || [ -x "$word" ] || skip "no $word"
  break
done

# shellcheck source=../lib/netns_pair.sh
source "$(dirname "$0")/../lib/netns_pair.sh"
netns_names tl
work=$(mktemp -d /tmp/tl-e2e-XXXXXX)
serve_pid=
own_wine_prefix=
cleanup() {
  [ -n "$serve_pid" ] && kill "$serve_pid" 2> /dev/null
  netns_remove
  # Only the Wine server of the prefix made here, never the caller's.
  [ -n "$own_wine_prefix" ] && WINEPREFIX=$own_wine_prefix wineserver -k 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
  echo "FAIL ($case_name): $*"
  echo "--- serve stdout"; cat "$work/serve.out" 2> /dev/null
  echo "--- serve stderr (tail)"; tail -40 "$work/serve.err" 2> /dev/null
  echo "--- routersim stdout"; cat "$work/sim.out" 2> /dev/null
  echo "--- routersim stderr (tail)"; tail -20 "$work/sim.err" 2> /dev/null
  exit 1
}

netns_pair
case $? in
  0) ;;
  2) skip "cannot create network namespaces" ;;
  *) fail "cannot join the namespaces by a veth pair" ;;
esac

export HOME=$work/home TMPDIR=$work/tmp
unset XDG_CONFIG_HOME
mkdir -p "$HOME" "$TMPDIR" "$work/pk" "$work/out"
if [[ "$serve_cmd" == wine* ]]; then
  own_wine_prefix=$work/wine
  export WINEPREFIX=$own_wine_prefix WINEDEBUG=-all
fi

hexof() { head -c "$1" /dev/urandom | od -An -v -tx1 | tr -d ' \n'; }
"$mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --part 4 "$(hexof 30000)" --data 200000 > /dev/null ||
  fail "mkpkg"
"$mkpkg" "$work/pk/extra-6.41.npk" --package extra 6.41 --arch arm --depends system:6.41 --part 4 "$(hexof 7000)" \
  > /dev/null || fail "mkpkg"
"$mkpkg" "$work/pk/empty-6.41.npk" --package empty 6.41 --arch arm > /dev/null || fail "mkpkg"
printf '/system identity set name=test\n' > "$work/user.rsc"
printf '/system routerboard mode set x\n' > "$work/mode.rsc"

# Runs serve in the server namespace (in the background) with extra arguments.
start_serve() {
  (cd "$work" && exec ip netns exec "$srv" timeout --foreground "${SERVE_TIMEOUT:-120}" $serve_cmd serve \
    --client-address 192.168.88.1 --packages "$(serve_path "$work/pk")" "$@" > "$work/serve.out" 2> "$work/serve.err") &
  serve_pid=$!
}
serve_path() {
  # Wine's own Z: drive maps the Linux root. (winepath is not used: it would
  # start Wine's server outside the namespace, where it sees other interfaces.)
  if [[ "$serve_cmd" == wine* ]]; then echo "Z:${1//\//\\}"; else echo "$1"; fi
}
run_sim() {
  ip netns exec "$rtr" timeout --foreground "${SIM_TIMEOUT:-150}" "$routersim" --interface "$veth_b" --output "$work/out" \
    --repeat-ms 300 "$@" > "$work/sim.out" 2> "$work/sim.err"
}
wait_serve() {
  wait "$serve_pid"
  serve_rc=$?
  serve_pid=
}
router_dir=$work/out/02-00-00-00-00-01
expect_same() { cmp -s "$1" "$2" || fail "$(basename "$2") differs from $(basename "$1")"; }
expect_line() { grep -qF -- "$2" "$1" || fail "no line with '$2' in $(basename "$1")"; }

case $case_name in
  basic)
    start_serve --select extra-6.41.npk --select empty-6.41.npk --address 10.0.0.5/24 --gateway 10.0.0.1 \
      --baud 115200 --script "$(serve_path "$work/user.rsc")" --mode-script "$(serve_path "$work/mode.rsc")" \
      --remove-branding --count 1
    run_sim --branding yes || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    expect_line "$work/serve.out" $'02:00:00:00:00:01\tInstallation finished successfully'
    expect_line "$work/sim.out" $'installed\tfiles=5\t'
    expect_line "$work/sim.out" $'\toffer=removeBranding\t'
    expect_line "$work/sim.out" $'\tterm=reboot\t'
    expect_same "$work/pk/system-6.41.npk" "$router_dir/system-6.41.npk"
    expect_same "$work/pk/extra-6.41.npk" "$router_dir/extra-6.41.npk"
    expect_same "$work/pk/empty-6.41.npk" "$router_dir/empty-6.41.npk"
    expect_same "$work/mode.rsc" "$router_dir/mode.scr"
    {
      cat "$work/user.rsc"
      printf '\n:local eth [/interface ethernet get [/interface ethernet find mac-address="02:00:00:00:00:01"] name]\n'
      printf '/interface enable $eth\n/ip address add address=10.0.0.5/24 interface=$eth\n'
      printf '/ip route add gateway=10.0.0.1\n/port set [/port find] baud-rate=115200\n'
    } > "$work/expected.scr"
    expect_same "$work/expected.scr" "$router_dir/autorun.scr"
    # The order: dependencies first, then the mode script, then the autorun script.
    order=$(grep -o 'received [^ ]*' "$work/sim.err" | cut -d' ' -f2 | tr '\n' ' ')
    [ "$order" = "empty-6.41.npk system-6.41.npk extra-6.41.npk mode.scr autorun.scr " ] || fail "order: $order"
    ;;
  keep)
    start_serve --select system-6.41.npk --keep-config --address 10.0.0.5/24 --count 1
    run_sim --branding yes || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    expect_line "$work/sim.out" $'\toffer=keep\t'
    [ -f "$router_dir/autorun.scr" ] && [ ! -s "$router_dir/autorun.scr" ] || fail "autorun.scr not empty"
    ;;
  nack)
    start_serve --select system-6.41.npk --count 1
    run_sim --answer NACK
    wait_serve
    [ "$serve_rc" = 1 ] || fail "serve exit $serve_rc, expected 1"
    expect_line "$work/serve.out" $'02:00:00:00:00:01\tInstallation failed: router refused installation'
    expect_line "$work/sim.out" $'\trefused\t'
    ;;
  wrong)
    start_serve --select system-6.41.npk --count 1
    run_sim --answer HELO
    wait_serve
    [ "$serve_rc" = 1 ] || fail "serve exit $serve_rc, expected 1"
    expect_line "$work/serve.out" $'02:00:00:00:00:01\tInstallation failed: bad router response'
    ;;
  silent)
    start_serve --select system-6.41.npk --count 1
    run_sim --stop-after-retr 5
    wait_serve
    [ "$serve_rc" = 1 ] || fail "serve exit $serve_rc, expected 1"
    expect_line "$work/serve.out" $'02:00:00:00:00:01\tInstallation failed: No response from router, timeout'
    ;;
  reannounce3)
    start_serve --select system-6.41.npk --count 1
    run_sim --reannounce-ms 3000 || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    expect_line "$work/sim.out" $'\toffers=1\t'
    expect_same "$work/pk/system-6.41.npk" "$router_dir/system-6.41.npk"
    ;;
  reannounce6)
    start_serve --select system-6.41.npk --count 1
    run_sim --reannounce-ms 6000 --give-up-ms 3000 || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    expect_line "$work/sim.out" $'\toffers=2\t'
    expect_same "$work/pk/system-6.41.npk" "$router_dir/system-6.41.npk"
    ;;
  shutdown)
    start_serve --select system-6.41.npk --after shutdown --count 1
    run_sim || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    expect_line "$work/sim.out" $'\tterm=shutdown\t'
    ;;
  lossy20)
    SERVE_TIMEOUT=400 start_serve --select extra-6.41.npk --count 20
    SIM_TIMEOUT=400 run_sim --count 20 --loss 0.10 --dup 0.05 --seed 42 --timeout-s 380 || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    [ "$(grep -cE $'^([0-9A-F]{2}:){5}[0-9A-F]{2}\tInstallation finished successfully$' "$work/serve.out")" = 20 ] || fail "not 20 successes"
    for dir in "$work"/out/*; do
      expect_same "$work/pk/system-6.41.npk" "$dir/system-6.41.npk"
      expect_same "$work/pk/extra-6.41.npk" "$dir/extra-6.41.npk"
    done
    [ "$(ls "$work/out" | wc -l)" = 20 ] || fail "not 20 routers stored files"
    ;;
  nftloss)
    # Six routers, two packages each, while nftables drops TL_E2E_LOSS percent
    # (default 10) of the installation protocol's datagrams at random in each
    # direction, on arrival in the receiving namespace (both ends use UDP
    # port 5000; a drop in the sender's output chain would fail its sendto
    # instead of losing the datagram). A segmented send (several answers in
    # one go) is one packet to nftables and goes or stays whole. Every file
    # arrives byte for byte and every router confirms the end of its files:
    # a lost "FILE\n" comes again on the router's repeat, because "TERM"
    # waits for the router's "WTRM".
    command -v nft > /dev/null || skip "needs nft"
    loss=${TL_E2E_LOSS:-10}
    for ns in "$srv" "$rtr"; do
      ip netns exec "$ns" nft -f - << NFT || fail "cannot make datagrams go lost"
table inet tlloss {
  chain in {
    type filter hook input priority 0;
    udp dport 5000 numgen random mod 100 < $loss drop
  }
}
NFT
    done
    started=$(date +%s%N)
    SERVE_TIMEOUT=200 start_serve --select system-6.41.npk --select extra-6.41.npk --count 6 --json \
      --results "$(serve_path "$work/results.jsonl")"
    SIM_TIMEOUT=200 run_sim --count 6 --timeout-s 180 --compare "$work/pk" || fail "routersim exit $?"
    wait_serve
    took=$((($(date +%s%N) - started) / 1000000))
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    [ "$(ls "$work/out" | wc -l)" = 6 ] || fail "not 6 routers stored files"
    for dir in "$work"/out/*; do
      expect_same "$work/pk/system-6.41.npk" "$dir/system-6.41.npk"
      expect_same "$work/pk/extra-6.41.npk" "$dir/extra-6.41.npk"
    done
    expect_line "$work/sim.err" "routersim: 12 files identical to $work/pk, 0 different"
    [ "$(grep -c $'\tinstalled\t.*\tterm=reboot\terrors=0\t' "$work/sim.out")" = 6 ] || fail "not 6 routers installed and rebooted"
    python3 - "$work/results.jsonl" "$work/serve.out" << 'PY' || fail "not every router confirmed"
import json, sys
results = [json.loads(line) for line in open(sys.argv[1]).read().splitlines()]
ended = [e for e in map(json.loads, open(sys.argv[2]).read().splitlines()) if e["event"] == "ended"]
for name, lines in (("results", results), ("serve --json", ended)):
    assert len(lines) == 6 and len({r["mac"] for r in lines}) == 6, (name, lines)
    for r in lines:
        assert r["result"] == "installed" and r["confirmed"] is True, (name, r)
        assert r["files"] == ["system-6.41.npk", "extra-6.41.npk"], (name, r)
PY
    transfer=$(grep -o 'transfer_ms=[0-9]*' "$work/sim.out" | cut -d= -f2 | sort -n | tail -1)
    echo "six routers, two packages each, $loss % loss each way: $took ms in all, longest transfer $transfer ms"
    ;;
  beacon)
    # The router namespace listens on UDP port 5010 for "you have to etherboot".
    ip netns exec "$rtr" timeout 100 python3 -c '
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("", 5010))
s.settimeout(90)
data, peer = s.recvfrom(100)
sys.stdout.write(data.decode("latin-1"))
' > "$work/beacon.out" 2> "$work/beacon.err" &
    listen_pid=$!
    # The beacon's socket is not tied to an interface: the limited broadcast
    # leaves by the default route, as on a PC whose network has one.
    ip -n "$srv" route add default dev "$veth_a"
    sleep 1
    start_serve --beacon --select system-6.41.npk
    wait "$listen_pid" || { cat "$work/beacon.err"; fail "no beacon heard on port 5010"; }
    [ "$(cat "$work/beacon.out")" = "you have to etherboot" ] || fail "beacon text: $(cat "$work/beacon.out")"
    kill "$serve_pid" 2> /dev/null
    wait_serve
    ;;
  previous)
    # The choice of an install is saved as "Previous Install", but a later
    # serve without --select or --set does not install it: it installs the
    # folder's default selection (every package), so runs are reproducible.
    start_serve --select extra-6.41.npk --count 1
    run_sim || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "first serve exit $serve_rc"
    rm -rf "$work/out" && mkdir -p "$work/out"
    start_serve --count 1 --no-save
    run_sim || fail "second routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "second serve exit $serve_rc"
    expect_line "$work/sim.out" $'installed\tfiles=4\t'
    expect_same "$work/pk/system-6.41.npk" "$router_dir/system-6.41.npk"
    expect_same "$work/pk/extra-6.41.npk" "$router_dir/extra-6.41.npk"
    expect_same "$work/pk/empty-6.41.npk" "$router_dir/empty-6.41.npk"
    expect_line "$work/serve.err" "gets the package folder's default selection (3 packages)"
    # The first run's "Previous Install" was there all along (the second
    # run saved nothing), for whoever asks for it by name.
    rm -rf "$work/out" && mkdir -p "$work/out"
    start_serve --set "Previous Install" --count 1
    run_sim || fail "third routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "third serve exit $serve_rc"
    expect_line "$work/sim.out" $'installed\tfiles=3\t'
    [ ! -e "$router_dir/empty-6.41.npk" ] || fail "--set \"Previous Install\" installed the default selection"
    ;;
  inventory)
    # Two of four routers are in the inventory, each with its own address,
    # script and packages; with --only-known the other two are left alone.
    {
      printf '[02:00:00:00:00:01]\naddress = 10.0.0.11/24\nscript = user.rsc\nselect = extra-6.41.npk\n\n'
      printf '# the second gets the command line packages\n[02:00:00:00:00:02]\naddress = 10.0.1.12/16\n'
    } > "$work/fleet.ini"
    # --on-finish in the platform's own interpreter writes a line per router
    # (one command at a time: cmd.exe cannot append to a file another has open).
    if [[ "$serve_cmd" == wine* ]]; then
      finish_cmd="echo %TARNLIFT_MAC% %TARNLIFT_RESULT% %TARNLIFT_FILES%>> $(serve_path "$work/finish.txt")"
    else
      finish_cmd='echo "$TARNLIFT_MAC $TARNLIFT_RESULT $TARNLIFT_FILES" >> finish.txt'
    fi
    start_serve --select empty-6.41.npk --address 10.9.9.9/8 --inventory "$(serve_path "$work/fleet.ini")" \
      --only-known --count 2 --on-finish "$finish_cmd" --on-finish-jobs 1
    # Long enough for the known two to finish (Wine starts slowly); the
    # unknown two keep the simulator waiting until then.
    sim_seconds=10
    [[ "$serve_cmd" == wine* ]] && sim_seconds=45
    SIM_TIMEOUT=90 run_sim --count 4 --timeout-s "$sim_seconds"
    sim_rc=$?
    [ "$sim_rc" = 3 ] || fail "routersim exit $sim_rc, expected 3 (two routers left alone)"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "serve exit $serve_rc"
    expect_line "$work/out/02-00-00-00-00-01/autorun.scr" "/ip address add address=10.0.0.11/24 interface=\$eth"
    expect_line "$work/out/02-00-00-00-00-01/autorun.scr" "/system identity set name=test"
    expect_line "$work/out/02-00-00-00-00-02/autorun.scr" "/ip address add address=10.0.1.12/16 interface=\$eth"
    expect_same "$work/pk/extra-6.41.npk" "$work/out/02-00-00-00-00-01/extra-6.41.npk"
    expect_same "$work/pk/empty-6.41.npk" "$work/out/02-00-00-00-00-02/empty-6.41.npk"
    [ ! -e "$work/out/02-00-00-00-00-02/extra-6.41.npk" ] || fail "the second router got the first one's packages"
    [ ! -e "$work/out/02-00-00-00-00-03" ] && [ ! -e "$work/out/02-00-00-00-00-04" ] || fail "an unknown router was installed"
    expect_line "$work/sim.out" $'02:00:00:00:00:03\tunfinished'
    [ "$(grep -c 'unknown router 02:00:00:00:00:03' "$work/serve.err")" = 1 ] || fail "unknown router not logged once"
    [ -f "$work/finish.txt" ] || fail "--on-finish wrote nothing"
    tr -d '\r' < "$work/finish.txt" | sed 's/ *$//' | sort > "$work/finish.sorted"
    printf '02:00:00:00:00:01 installed system-6.41.npk extra-6.41.npk\n02:00:00:00:00:02 installed empty-6.41.npk\n' \
      > "$work/finish.expected"
    cmp -s "$work/finish.expected" "$work/finish.sorted" || fail "--on-finish lines: $(cat "$work/finish.txt")"
    [ "$(grep -c 'on-finish 02:00:00:00:00:0[12]: exit code 0' "$work/serve.err")" = 2 ] || fail "--on-finish ends not logged"
    ;;
  fleet)
    # 20 routers: the inventory gives the first 10 their addresses, the pool
    # the other 10; every autorun script carries its own, none twice, and a
    # second run gives every router the same address again.
    for i in $(seq 1 10); do
      printf '[02:00:00:00:00:%02X]\naddress = 10.0.0.%d/24\n' "$i" $((100 + i))
    done > "$work/fleet.ini"
    addresses() {
      for dir in "$work"/out/*; do
        printf '%s %s\n' "$(basename "$dir")" "$(grep -o 'add address=[0-9./]*' "$dir/autorun.scr" | cut -d' ' -f2)"
      done | sort
    }
    for run in 1 2; do
      rm -rf "$work/out" && mkdir -p "$work/out"
      # In the second run the first router's command hangs: the installs
      # go on, and the stop kills it after its 10 s.
      hang=
      [ "$run" = 2 ] && hang='; [ $TARNLIFT_MAC != 02:00:00:00:00:01 ] || sleep 100'
      started=$(date +%s)
      # The first run also writes its events as JSON lines instead of the table.
      json=()
      [ "$run" = 1 ] && json=(--json)
      start_serve --select system-6.41.npk --inventory "$(serve_path "$work/fleet.ini")" "${json[@]}" \
        --address-pool 10.0.1.1-10.0.1.50/16 --results "$(serve_path "$work/results$run.jsonl")" --count 20 \
        --on-finish "echo \"\$TARNLIFT_MAC \$TARNLIFT_RESULT \$TARNLIFT_ADDRESS\" >> finish$run.txt; echo said \$TARNLIFT_MAC$hang"
      SIM_TIMEOUT=200 run_sim --count 20 --timeout-s 180 || fail "run $run: routersim exit $?"
      wait_serve
      [ "$serve_rc" = 0 ] || fail "run $run: serve exit $serve_rc"
      addresses > "$work/addresses$run"
      [ "$(grep -c 'on-finish 02:00:00:00:00:[0-9A-F]*: said 02:00:00:00:00:' "$work/serve.err")" = 20 ] ||
        fail "run $run: not 20 --on-finish outputs in the log"
      if [ "$run" = 2 ]; then
        [ $(($(date +%s) - started)) -lt 60 ] || fail "the hanging command held serve up"
        expect_line "$work/serve.err" "on-finish: 1 still running after 10 s: killed; 0 waiting: not run"
        expect_line "$work/serve.err" "on-finish 02:00:00:00:00:01: killed at the server's stop"
        [ "$(grep -c 'on-finish 02:00:00:00:00:[0-9A-F]*: exit code 0' "$work/serve.err")" = 19 ] ||
          fail "not 19 commands ended by themselves"
      fi
      [ "$(wc -l < "$work/addresses$run")" = 20 ] || fail "run $run: not 20 routers: $(cat "$work/addresses$run")"
      [ "$(cut -d' ' -f2 "$work/addresses$run" | sort -u | wc -l)" = 20 ] || fail "run $run: an address twice"
      # One results line per router, matching what the router received.
      # --on-finish ran once per router, with its MAC, result and address.
      python3 - "$work/results$run.jsonl" "$work/addresses$run" "$work/finish$run.txt" << 'PY' || fail "run $run: results do not match"
import json, sys
lines = open(sys.argv[1], encoding="ascii").read().splitlines()
received = dict(line.split(" ") for line in open(sys.argv[2]).read().splitlines())
finished = open(sys.argv[3]).read().splitlines()
assert len(finished) == 20, finished
assert len({f.split(" ")[0] for f in finished}) == 20, finished
for f in finished:
    mac, result, address = f.split(" ")
    assert result == "installed", f
    assert address == received[mac.replace(":", "-")].split("=")[1], (f, received)
assert len(lines) == 20, len(lines)
for line in lines:
    r = json.loads(line)
    dashed = r["mac"].replace(":", "-")
    assert r["address"] == received[dashed].split("=")[1], (r, received[dashed])
    assert r["result"] == "installed" and r["architecture"] == "arm", r
    assert r["files"] == ["system-6.41.npk"] and r["versions"] == ["6.41"], r
    assert r["bytes"] > 0 and r["seconds"] >= 0, r
PY
      if [ "$run" = 1 ]; then
        # serve --json: every line parses; one seen and one ended event per
        # router, the ended ones with the same facts as the results file.
        python3 - "$work/serve.out" "$work/results1.jsonl" << 'PY' || fail "serve --json lines"
import json, sys
events = [json.loads(line) for line in open(sys.argv[1], encoding="ascii").read().splitlines()]
results = {r["mac"]: r for r in map(json.loads, open(sys.argv[2]).read().splitlines())}
seen = [e["mac"] for e in events if e["event"] == "seen"]
ended = [e for e in events if e["event"] == "ended"]
assert sorted(seen) == sorted(results), seen
assert sorted(e["mac"] for e in ended) == sorted(results), ended
assert all(e["event"] in ("seen", "progress", "ended") for e in events), events
for e in ended:
    r = results[e["mac"]]
    for key in ("address", "files", "versions", "result", "label", "architecture"):
        assert e[key] == r[key], (key, e, r)
print("serve --json: %d lines, %d routers seen and ended" % (len(events), len(seen)))
PY
      fi
    done
    grep -qx '02-00-00-00-00-0A address=10.0.0.110/24' "$work/addresses1" || fail "inventory address not given"
    [ "$(grep -c 'address=10.0.1.[0-9]*/16$' "$work/addresses1")" = 10 ] || fail "not 10 pool addresses"
    expect_same "$work/addresses1" "$work/addresses2"
    # For the notes: the records of a run, when asked for.
    [ -n "${TL_E2E_KEEP:-}" ] && cp "$work/results1.jsonl" "$work/finish1.txt" "$work/serve.err" "$TL_E2E_KEEP/"
    ;;
  onlyknownbootp)
    # Network booting answers only the known routers: an unknown client gets
    # silence, a known one its reply.
    bootpclient=${5:-}
    [ -x "$bootpclient" ] || skip "no bootpclient"
    head -c 4096 /dev/urandom > "$work/kernel.bin"
    start_serve --netboot --kernel "$(serve_path "$work/kernel.bin")" --select system-6.41.npk \
      --mac 02:00:00:00:00:01 --only-known
    for _ in $(seq 1 300); do grep -q "serve: installing on" "$work/serve.err" 2> /dev/null && break; sleep 0.1; done
    grep -q "serve: installing on" "$work/serve.err" || fail "serve did not start"
    ip netns exec "$rtr" timeout --foreground 20 "$bootpclient" --interface "$veth_b" --vendor-class ARM__boot \
      --mac 02:00:00:00:00:09 --timeout 4 > "$work/unknown.out" 2>&1
    rc=$?
    [ "$rc" = 2 ] || fail "unknown client: bootpclient exit $rc, expected 2 (no reply): $(cat "$work/unknown.out")"
    ip netns exec "$rtr" timeout --foreground 30 "$bootpclient" --interface "$veth_b" --vendor-class ARM__boot \
      --mac 02:00:00:00:00:01 --timeout 20 --client 192.168.88.1 --server 192.168.88.2 > "$work/known.out" 2>&1 ||
      fail "known client got no matching reply: $(cat "$work/known.out")"
    kill "$serve_pid" 2> /dev/null
    wait_serve
    [ "$(grep -c 'unknown client 02:00:00:00:00:09 not answered' "$work/serve.err")" = 1 ] ||
      fail "the unknown client is not logged once"
    ;;
  badinventory)
    # Every kind of bad line is refused before anything is sent.
    printf '/x\n' > "$work/ok.rsc"
    in_srv() { (cd "$work" && ip netns exec "$srv" timeout --foreground 60 $serve_cmd serve --client-address 192.168.88.1 \
      --select system-6.41.npk --packages "$(serve_path "$work/pk")" "$@" > "$work/serve.out" 2> "$work/serve.err"); }
    n=0
    for bad in '[02:00:00:00:01]' 'address = 10.0.0.5' 'address = 10.0.0.5/40' 'gateway = 10.0.0' \
      'script = nothing.rsc' 'mode-script = nothing.rsc' 'set = No Such Set' 'keep-config = perhaps' \
      'after = never' 'colour = red' '[02:00:00:00:00:01]'; do
      n=$((n + 1))
      printf '# fleet\n[02:00:00:00:00:01]\nscript = ok.rsc\n%s\n' "$bad" > "$work/bad$n.ini"
      ip netns exec "$rtr" timeout --foreground 10 "$routersim" --interface "$veth_b" --output "$work/out" --timeout-s 2 \
        > "$work/sim.out" 2> "$work/sim.err" &
      sim_pid=$!
      in_srv --inventory "$(serve_path "$work/bad$n.ini")"
      rc=$?
      wait "$sim_pid"
      [ "$rc" = 2 ] || fail "'$bad': exit $rc, expected 2"
      grep -qF "bad$n.ini:4: " "$work/serve.err" || fail "'$bad': no file:line in: $(cat "$work/serve.err")"
      expect_line "$work/sim.out" $'02:00:00:00:00:01\tunfinished'
      grep -q 'offers=0' "$work/sim.out" || fail "'$bad': the router was offered an install"
    done
    ;;
  nosave)
    # A run with --no-save leaves no "Previous Install" behind: the next run
    # that asks for it by name finds no such set.
    start_serve --select extra-6.41.npk --no-save --count 1
    run_sim || fail "routersim exit $?"
    wait_serve
    [ "$serve_rc" = 0 ] || fail "first serve exit $serve_rc"
    rm -rf "$work/out" && mkdir -p "$work/out"
    start_serve --set "Previous Install" --count 1
    run_sim --timeout-s 10
    wait_serve
    [ "$serve_rc" = 1 ] || fail "second serve exit $serve_rc, expected 1"
    expect_line "$work/serve.out" $'02:00:00:00:00:01\tno package set named Previous Install'
    ;;
  usage)
    in_srv() { (cd "$work" && ip netns exec "$srv" timeout --foreground 60 $serve_cmd serve "$@" > "$work/serve.out" 2> "$work/serve.err"); }
    in_srv; [ $? = 2 ] || fail "no arguments: expected exit 2"
    in_srv --client-address 192.168.88.1 --after later; [ $? = 2 ] || fail "bad --after: expected exit 2"
    in_srv --client-address 192.168.88.1 --count 0; [ $? = 2 ] || fail "bad --count: expected exit 2"
    in_srv --client-address 192.168.88.1 --mac 1:2:3; [ $? = 2 ] || fail "bad --mac: expected exit 2"
    in_srv --client-address 192.168.88.1 --on-finish ""; [ $? = 2 ] || fail "empty --on-finish: expected exit 2"
    in_srv --client-address 192.168.88.1 --on-finish true --on-finish-jobs 0; [ $? = 2 ] ||
      fail "--on-finish-jobs 0: expected exit 2"
    expect_line "$work/serve.err" "--on-finish-jobs needs a number from 1 to 64"
    in_srv --client-address 10.77.0.1 --count 1; [ $? = 1 ] || fail "no interface: expected exit 1"
    expect_line "$work/serve.err" "no network interface reaches 10.77.0.1"
    ;;
  *)
    echo "unknown case $case_name"
    exit 2
    ;;
esac
echo "PASS ($case_name)"
exit 0
