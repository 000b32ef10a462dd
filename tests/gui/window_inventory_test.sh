#!/usr/bin/env bash
# "Load inventory…" in the real window: tarnlift.exe (under Wine, with a
# display) in a server namespace, the router simulator in a router namespace
# joined to it by a veth pair. A bad file is refused with its line and
# changes nothing; a good one (the inventory install_e2e_wine_inventory
# gives `tarnlift-cli.exe serve`) gives the two routers that appear their
# addresses, configure script and packages, which the driver reads from the
# controls, and Install sends them.
#
# usage: window_inventory_test.sh TARNLIFT_EXE GUIPROBE ROUTERSIM MKPKG [SCREENSHOT_DIR]
set -u
gui=$(realpath "$1")
probe=$(realpath "$2")
routersim=$(realpath "$3")
mkpkg=$(realpath "$4")
shots=${5:+$(realpath "$5")}

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
command -v wine > /dev/null || skip "needs wine"
[ -x "$routersim" ] || skip "no router simulator at $routersim"
[ -x "$mkpkg" ] || skip "no package writer at $mkpkg"
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run > /dev/null || skip "no display and no xvfb-run"
  exec xvfb-run -a "$0" "$@"
fi

here=$(cd "$(dirname "$0")" && pwd)
window_ns_prefix=tli
window_work_prefix=tl-inventory
# shellcheck source=window_netns.sh
source "$here/window_netns.sh"
row_of() { drive win "$title" 5000 -- rows 1002 | awk -F'\t' -v mac="$1" '$6 == mac { print $1; exit }'; }
wait_row() {  # MAC; sets $row
  row=""
  for _ in $(seq 1 300); do
    row=$(row_of "$1")
    [ -n "$row" ] && return 0
    sleep 0.2
  done
  fail "no row for $1"
}
# Loads FILE through "Load inventory…" and its file dialog.
load_inventory() {
  win -- click 1043
  drive_ok dlg "Load inventory" 20000 -- settext 1148 "$(winpath "$1")" -- click 1 -- gone "Load inventory" 10000
}

mkdir -p "$work/start" "$work/pk" "$work/out"
hexof() { head -c "$1" /dev/urandom | od -An -v -tx1 | tr -d ' \n'; }
"$mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --part 4 "$(hexof 30000)" --data 100000 > /dev/null ||
  fail "mkpkg"
"$mkpkg" "$work/pk/extra-6.41.npk" --package extra 6.41 --arch arm --depends system:6.41 --part 4 "$(hexof 7000)" \
  > /dev/null || fail "mkpkg"
"$mkpkg" "$work/pk/empty-6.41.npk" --package empty 6.41 --arch arm > /dev/null || fail "mkpkg"
printf '/system identity set name=test\n' > "$work/user.rsc"
# Line 4 is wrong: nothing of this file may reach the router.
printf '# the lab\n[02:00:00:00:00:01]\naddress = 10.0.0.99/24\ngateway = 10.0.0\n' > "$work/bad.ini"
# The inventory of install_e2e_wine_inventory, with a label and a gateway
# for the first router.
{
  printf '[02:00:00:00:00:01]\nlabel = Lab desk\naddress = 10.0.0.11/24\ngateway = 10.0.0.1\nscript = user.rsc\n'
  printf 'select = extra-6.41.npk\n\n'
  printf '# the second gets the command line packages\n[02:00:00:00:00:02]\naddress = 10.0.1.12/16\n'
} > "$work/fleet.ini"

# The installation transport takes its interface from the saved client
# address, and the package folder is the saved one.
settings='HKCU\SOFTWARE\Quenlark\NetServer'
in_srv wine reg add "$settings" /v "PXE Client Address" /t REG_DWORD /d 0x0158a8c0 /f > /dev/null 2>&1
in_srv wine reg add "$settings" /v "Package Path" /t REG_SZ /d "$(winpath "$work/pk")" /f > /dev/null 2>&1

(cd "$work/start" && exec ip netns exec "$srv" timeout 300 wine "$gui") >> "$work/gui.log" 2>&1 &
gui_pid=$!
win > /dev/null
expect_eq "package folder" "$(win -- text 1003)" "$(winpath "$work/pk")"
expect_eq "the button" "$(win -- state 1043)" "enabled=1 checked=0 readonly=0 visible=1"
layout=$(win -- layout) || fail "the main window's layout has problems: $layout"
echo "$layout"

# ---- A bad file: refused with its line, nothing applied.
load_inventory "$work/bad.ini"
box=$(drive_ok box Error 10000)
echo "refused: $box"
case "$box" in
  "$(winpath "$work/bad.ini"):4: "*) ;;
  *) fail "the refusal does not name FILE:4: '$box'" ;;
esac

(exec ip netns exec "$rtr" timeout --foreground 200 "$routersim" --interface "$veth_b" --output "$work/out" --repeat-ms 300 \
  --delay-ms 15 --label Lab --count 2 > "$work/sim.out" 2> "$work/sim.err") &
sim_pid=$!
wait_row 02:00:00:00:00:02
drive_ok win "$title" -- waitcell 1002 "$row" 2 Ready 10000
wait_row 02:00:00:00:00:01
drive_ok win "$title" -- waitcell 1002 "$row" 2 Ready 10000
win -- selectrow 1002 "$row" -- sync -- sleep 300 -- sync
expect_eq "address after the refused file" "$(win -- text 1006)/$(win -- text 1005) via $(win -- text 1008)" "/ via "
expect_eq "packages after the refused file" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 2 2 "

# ---- The good file: the routers listed take their sections at once.
load_inventory "$work/fleet.ini"
drive nobox Error 1000 || fail "the good file was refused: $(drive_ok box Error 1000)"
win -- sync -- sleep 300 -- sync
expect_eq "address from the inventory" "$(win -- text 1006)/$(win -- text 1005) via $(win -- text 1008)" \
  "10.0.0.11/24 via 10.0.0.1"
expect_eq "script ticked" "$(win -- state 1032)" "enabled=1 checked=1 readonly=0 visible=1"
expect_eq "script path" "$(win -- text 1033)" "$(winpath "$work/user.rsc")"
# empty, extra, system: extra selected and the system it needs.
expect_eq "packages from the inventory" "$(win -- rows 1001 | cut -f5 | tr '\n' ' ')" "empty extra system "
expect_eq "ticked from the inventory" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 1 1 "
expect_eq "caption" "$(win -- text 1025)" "Selected 2 package(s)"
tr -d '\r' < "$work/gui.log" | grep -q "router 02:00:00:00:00:01 takes its options from the inventory (\"Lab desk\")" ||
  fail "the log does not tell that the router took its section"
layout=$(win -- layout) || fail "the layout has problems with the inventory's values: $layout"
shot main_window_inventory "$title"

# ---- Install sends what the inventory gave.
win -- click 1023
drive_ok win "$title" -- waitcell 1002 "$row" 2 Done 120000

# ---- The second router: its address from the inventory, the rest the
# window's own; the user ticks its package (serve's command line does).
row1=$row
wait_row 02:00:00:00:00:02
[ "$row" != "$row1" ] || fail "one row for both routers"
win -- selectrow 1002 "$row" -- sync -- sleep 300 -- sync
expect_eq "second address" "$(win -- text 1006)/$(win -- text 1005) via $(win -- text 1008)" "10.0.1.12/16 via "
expect_eq "second script" "$(win -- state 1032)" "enabled=1 checked=0 readonly=0 visible=1"
expect_eq "second packages" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 2 2 "
win -- clickrow 1001 0 -- sync -- sleep 200 -- sync
expect_eq "second packages ticked" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "1 2 2 "
win -- click 1023
drive_ok win "$title" -- waitcell 1002 "$row" 2 Done 120000
timeout 60 tail --pid="$sim_pid" -f /dev/null
wait "$sim_pid" || fail "routersim exit $?"
sim_pid=
router_dir=$work/out/02-00-00-00-00-01
cmp -s "$work/pk/system-6.41.npk" "$router_dir/system-6.41.npk" || fail "system-6.41.npk differs"
cmp -s "$work/pk/extra-6.41.npk" "$router_dir/extra-6.41.npk" || fail "extra-6.41.npk differs"
[ -e "$router_dir/empty-6.41.npk" ] && fail "a package the inventory did not select was sent"
{
  cat "$work/user.rsc"
  printf '\n:local eth [/interface ethernet get [/interface ethernet find mac-address="02:00:00:00:00:01"] name]\n'
  printf '/interface enable $eth\n/ip address add address=10.0.0.11/24 interface=$eth\n'
  printf '/ip route add gateway=10.0.0.1\n'
} > "$work/expected.scr"
cmp -s "$work/expected.scr" "$router_dir/autorun.scr" || fail "autorun.scr differs: $(cat "$router_dir/autorun.scr")"
router_dir=$work/out/02-00-00-00-00-02
cmp -s "$work/pk/empty-6.41.npk" "$router_dir/empty-6.41.npk" || fail "empty-6.41.npk differs on the second router"
[ -e "$router_dir/extra-6.41.npk" ] && fail "the second router got the first one's packages"
grep -qxF '/ip address add address=10.0.1.12/16 interface=$eth' "$router_dir/autorun.scr" ||
  fail "the second router's address: $(cat "$router_dir/autorun.scr")"
[ "$(grep -c $'\tterm=reboot\t' "$work/sim.out")" = 2 ] || fail "the routers were not rebooted"
echo "installed: $(tr -d '\r' < "$work/sim.out")"

win -- sysclose
timeout 60 tail --pid="$gui_pid" -f /dev/null
wait "$gui_pid"
rc=$?
gui_pid=
expect_eq "exit code after closing" "$rc" 0
echo "PASS: the window's Load inventory refuses a bad file and fills a router's options from a good one"
