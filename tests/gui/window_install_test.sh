#!/usr/bin/env bash
# A whole network installation driven from the window: tarnlift.exe (under
# Wine, with a display) in a server namespace, the router simulator in a
# router namespace joined to it by a veth pair. The driver switches network
# booting on through its dialog (refusals first, then an address that a BOOTP
# client in the router namespace is served with), picks the package folder,
# the router, a package, the address fields and a configure script, presses
# Install and watches the row go to "Done" through the auto-reboot. Then the
# sets: the refusals and the reopened name. Then a restart: the settings
# come back and a router found anew gets the remembered choices. Last,
# closing the window while an installation runs exits with 0.
#
# usage: window_install_test.sh TARNLIFT_EXE GUIPROBE ROUTERSIM MKPKG BOOTP_PEER [SCREENSHOT_DIR]
set -u
gui=$(realpath "$1")
probe=$(realpath "$2")
routersim=$(realpath "$3")
mkpkg=$(realpath "$4")
bootp_peer=$(realpath "$5")
shots=${6:+$(realpath "$6")}

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
command -v ip > /dev/null || skip "needs iproute2"
command -v wine > /dev/null || skip "needs wine"
command -v python3 > /dev/null || skip "needs python3"
[ -x "$routersim" ] || skip "no router simulator at $routersim"
[ -x "$mkpkg" ] || skip "no package writer at $mkpkg"
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run > /dev/null || skip "no display and no xvfb-run"
  exec xvfb-run -a "$0" "$@"
fi

here=$(cd "$(dirname "$0")" && pwd)
window_ns_prefix=tlw
window_work_prefix=tl-window
# shellcheck source=window_netns.sh
source "$here/window_netns.sh"

start_gui() {
  (cd "$work/start" && exec ip netns exec "$srv" timeout 600 wine "$gui") >> "$work/gui.log" 2>&1 &
  gui_pid=$!
  win > /dev/null
}
stop_gui() {  # closes the window by its close box; the exit code must be 0
  win -- sysclose
  timeout 60 tail --pid="$gui_pid" -f /dev/null
  wait "$gui_pid"
  local rc=$?
  gui_pid=
  expect_eq "exit code after closing" "$rc" 0
}
start_sim() {
  (exec ip netns exec "$rtr" timeout --foreground 300 "$routersim" --interface "$veth_b" --output "$work/out" --repeat-ms 300 "$@" \
    > "$work/sim.out" 2> "$work/sim.err") &
  sim_pid=$!
}
wait_sim() {
  timeout 120 tail --pid="$sim_pid" -f /dev/null
  wait "$sim_pid"
  local rc=$?
  sim_pid=
  return $rc
}
stop_sim() {
  kill "$sim_pid" 2> /dev/null
  wait "$sim_pid" 2> /dev/null
  sim_pid=
}
# The row of the router list whose MAC cell is $1 (empty when none).
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
# The package row whose Name cell is $1, with its state picture.
package_state() { drive win "$title" 5000 -- rows 1001 | awk -F'\t' -v n="$1" '$5 == n { print $2; exit }'; }
package_row() { drive win "$title" 5000 -- rows 1001 | awk -F'\t' -v n="$1" '$5 == n { print $1; exit }'; }

mkdir -p "$work/start" "$work/pk" "$work/out"
hexof() { head -c "$1" /dev/urandom | od -An -v -tx1 | tr -d ' \n'; }
"$mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --part 4 "$(hexof 30000)" --data 200000 > /dev/null ||
  fail "mkpkg"
"$mkpkg" "$work/pk/extra-6.41.npk" --package extra 6.41 --arch arm --depends system:6.41 --part 4 "$(hexof 7000)" \
  > /dev/null || fail "mkpkg"
"$mkpkg" "$work/pk/empty-6.41.npk" --package empty 6.41 --arch arm > /dev/null || fail "mkpkg"
printf '/system identity set name=test\n' > "$work/user.rsc"

settings='HKCU\SOFTWARE\Quenlark\NetServer'
value() { in_srv wine reg query "$settings" /v "$1" 2> /dev/null | tr -d '\r' | awk -v n="$1" 'index($0, n) { print $NF }'; }

# ---- First start: nothing saved yet.
start_gui
expect_eq "first placement" "$(win -- rect | cut -d' ' -f1-2)" "20 20"
expect_eq "package folder at first start" "$(win -- text 1003)" "$(winpath "$work/start")"
expect_eq "auto reboot" "$(win -- combo 1013 | tr '\n' '|')" "* Reboot after installation|  Shutdown after installation|  None|"
win -- layout > /dev/null || fail "the main window's layout has problems: $(win -- layout)"
expect_eq "Install without a router" "$(win -- state 1023)" "enabled=0 checked=0 readonly=0 visible=1"
shot main_window_no_router "$title"

# ---- Network booting through dialog 107.
win -- click 1026
expect_eq "address shown" "$(drive_ok dlg "Network Booting Settings" 20000 -- text 1033)" 0.0.0.0
drive_ok dlg "Network Booting Settings" 20000 -- click 1032 -- settext 1033 192.168.88.1 -- sync
shot dialog107_netboot "Network Booting Settings"
drive_ok dlg "Network Booting Settings" 20000 -- settext 1033 abc -- click 1001
expect_eq "bad address" "$(drive_ok box Error 10000)" "Bad client address"
drive_ok dlg "Network Booting Settings" -- settext 1033 10.77.0.1 -- click 1001
expect_eq "no interface" "$(drive_ok box Error 10000)" "Could not find network interface"
drive_ok dlg "Network Booting Settings" -- settext 1033 192.168.88.1 -- click 1001 -- gone "Network Booting Settings" 10000

# ---- The package folder, typed and made final with Enter.
win -- settext 1003 "$(winpath "$work/pk")" -- keyup 1003 13 -- sync -- sleep 300 -- sync
expect_eq "packages listed" "$(win -- rows 1001 | cut -f5 | tr '\n' ' ')" "empty extra system "
expect_eq "no boxes without a router" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "0 0 0 "
# The installation transport takes its interface from the saved client
# address when it opens, so routers are found from the next start on.
stop_gui
expect_eq "PXE Enabled" "$(value "PXE Enabled")" 0x1
expect_eq "PXE Client Address" "$(value "PXE Client Address")" 0x158a8c0
expect_eq "Package Path" "$(value "Package Path")" "$(winpath "$work/pk")"

# ---- Second start: network booting is on as it was left, the folder is
# back; an installation.
start_gui
expect_eq "folder after restart" "$(win -- text 1003)" "$(winpath "$work/pk")"
out=$(in_rtr python3 "$bootp_peer" --interface "$veth_b" --vendor-class Powerboot --mac 02:00:5E:00:04:01 --timeout 20 \
  --client 192.168.88.1 --server 192.168.88.2) || fail "BOOTP with network booting on: $out"
echo "BOOTP: $out"
in_rtr curl -s -m 30 --tftp-blksize 1468 -o "$work/image" "tftp://192.168.88.2/image" || fail "TFTP with network booting on"
python3 -c "import struct,sys; d=open(sys.argv[1],'rb').read(); l=struct.unpack('<I',d[:4])[0]; open(sys.argv[2],'wb').write(d[4:4+l])" \
  "$here/../../resources/bootimages/129.bin" "$work/image129"
cmp -s "$work/image" "$work/image129" || fail "TFTP served other bytes than boot image 129"

# ---- A router appears.
start_sim --delay-ms 15 --label Lab1
wait_row 02:00:00:00:00:01
drive_ok win "$title" -- waitcell 1002 "$row" 2 Ready 10000
expect_eq "router row" "$(win -- rows 1002 | sed -n "$((row + 1))p" | cut -f3,5-8 | tr '\t' '|')" \
  "0|Lab1|02:00:00:00:00:01|Ready|arm"
win -- selectrow 1002 "$row" -- sync -- sleep 300 -- sync
expect_eq "Install enabled" "$(win -- state 1023)" "enabled=1 checked=0 readonly=0 visible=1"
expect_eq "caption" "$(win -- text 1025)" "Selected 0 package(s)"
expect_eq "boxes shown" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 2 2 "
# Ticking "extra" pulls in "system".
win -- clickrow 1001 "$(package_row extra)" -- sync -- sleep 200 -- sync
expect_eq "after ticking extra" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 1 1 "
expect_eq "caption after ticking" "$(win -- text 1025)" "Selected 2 package(s)"
# Options: address, netmask, gateway, a configure script chosen in the file
# dialog.
win -- settext 1006 10.0.0.5 -- settext 1005 24 -- settext 1008 10.0.0.1 -- click 1032 -- sync
expect_eq "script path writable" "$(win -- state 1033)" "enabled=1 checked=0 readonly=0 visible=1"
win -- click 1034
drive_ok dlg "Select script" 20000 -- settext 1148 "$(winpath "$work/user.rsc")" -- click 1 -- gone "Select script" 10000
expect_eq "chosen script" "$(win -- sync -- text 1033)" "$(winpath "$work/user.rsc")"
win -- click 1023
drive_ok win "$title" -- waitcell 1002 "$row" 2 Installing 20000
for _ in $(seq 1 100); do
  [ "$(win -- progress 1022)" -gt 0 ] && break
  sleep 0.1
done
[ "$(win -- progress 1022)" -gt 0 ] || fail "no progress shown while installing"
echo "installing: $(win -- text 1025), $(win -- progress 1022) %"
shot main_window_installing "$title"
drive_ok win "$title" -- waitcell 1002 "$row" 2 Done 120000
wait_sim || fail "routersim exit $?"
router_dir=$work/out/02-00-00-00-00-01
cmp -s "$work/pk/system-6.41.npk" "$router_dir/system-6.41.npk" || fail "system-6.41.npk differs"
cmp -s "$work/pk/extra-6.41.npk" "$router_dir/extra-6.41.npk" || fail "extra-6.41.npk differs"
[ -e "$router_dir/empty-6.41.npk" ] && fail "an unticked package was sent"
{
  cat "$work/user.rsc"
  printf '\n:local eth [/interface ethernet get [/interface ethernet find mac-address="02:00:00:00:00:01"] name]\n'
  printf '/interface enable $eth\n/ip address add address=10.0.0.5/24 interface=$eth\n'
  printf '/ip route add gateway=10.0.0.1\n'
} > "$work/expected.scr"
cmp -s "$work/expected.scr" "$router_dir/autorun.scr" || fail "autorun.scr differs: $(cat "$router_dir/autorun.scr")"
grep -q $'\tterm=reboot\t' "$work/sim.out" || fail "the router was not rebooted"
echo "installed: $(tr -d '\r' < "$work/sim.out")"


# ---- Package sets. The router announces again after its reboot and gets
# the last installed choice ("Previous Install").
start_sim --label Lab1
drive_ok win "$title" -- waitcell 1002 "$row" 2 Ready 30000
win -- selectrow 1002 "$row" -- sync -- sleep 300 -- sync
expect_eq "previous choice" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 1 1 "
# Nothing ticked: refused without a dialog.
win -- click 1015 -- sync
expect_eq "after Select none" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 2 2 "
win -- click 1011
expect_eq "empty set" "$(drive_ok box Error 10000)" "Cannot create empty package set"
drive nobox "Save set" 500 || fail "the Save set dialog opened for an empty choice"
win -- click 1014 -- sync
expect_eq "after Select all" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "1 1 1 "
win -- click 1011
expect_eq "start name" "$(drive_ok dlg "Save set" 10000 -- text 1000)" "Router x"
shot dialog102_save_set "Save set"
drive_ok dlg "Save set" -- click 1001 -- gone "Save set" 10000
win -- sync
expect_eq "saved set selected" "$(win -- combo 1010 | grep '^\* ')" "* Router x"
expect_eq "Save set after saving" "$(win -- state 1011)" "enabled=0 checked=0 readonly=0 visible=1"
expect_eq "Delete set after saving" "$(win -- state 1012)" "enabled=1 checked=0 readonly=0 visible=1"
# A change by hand makes it savable again; the same name is refused and the
# dialog comes back with the name typed last.
win -- clickrow 1001 "$(package_row empty)" -- sync
expect_eq "Save set after a change" "$(win -- state 1011)" "enabled=1 checked=0 readonly=0 visible=1"
win -- click 1011
drive_ok dlg "Save set" 10000 -- click 1001
expect_eq "duplicate" "$(drive_ok box Error 10000)" "Package set with this name already exists"
expect_eq "reopened name" "$(drive_ok dlg "Save set" 10000 -- text 1000)" "Router x"
drive_ok dlg "Save set" -- settext 1000 "Lab" -- click 1001 -- gone "Save set" 10000
expect_eq "sets" "$(win -- sync -- combo 1010 | grep -v "Previous Install" | tr '\n' '|')" "* Lab|  Router x|"
# Choosing a set applies it.
win -- choose 1010 "Router x" -- sync
expect_eq "Router x applied" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "1 1 1 "
# Help from the window: Esc closes it.
win -- click 1027
expect_eq "help focus" "$(drive_ok dlg Help 10000 -- focus)" 1031
shot dialog106_help Help
drive_ok dlg Help -- key 1031 27 -- gone Help 10000
stop_gui
stop_sim

# ---- What was saved, and a third start that finds it again.
expect_eq "Previous Address" "$(value "Previous Address")" 0x500000a
expect_eq "Previous Gateway" "$(value "Previous Gateway")" 0x100000a
expect_eq "Previous Netmask" "$(value "Previous NetMask")" 0x18
expect_eq "Previous Script" "$(value "Previous Script")" 0x1

start_gui
expect_eq "sets after restart" "$(win -- combo 1010 | tr '\n' '|')" "  Lab|  Previous Install|  Router x|"
# A router found anew starts from the remembered choices.
start_sim --delay-ms 150 --label Lab2 --mac 02:00:00:00:00:02
wait_row 02:00:00:00:00:02
win -- selectrow 1002 "$row" -- sync -- sleep 300 -- sync
expect_eq "remembered address" "$(win -- text 1006)/$(win -- text 1005) via $(win -- text 1008)" "10.0.0.5/24 via 10.0.0.1"
expect_eq "remembered script" "$(win -- state 1032)" "enabled=1 checked=1 readonly=0 visible=1"
expect_eq "remembered script path" "$(win -- text 1033)" "$(winpath "$work/user.rsc")"
expect_eq "remembered packages" "$(win -- rows 1001 | cut -f2 | tr '\n' ' ')" "2 1 1 "
expect_eq "its set" "$(win -- combo 1010 | grep '^\* ')" "* Previous Install"
expect_eq "Save set with a set" "$(win -- state 1011)" "enabled=0 checked=0 readonly=0 visible=1"

# ---- Closing while an installation runs ends the process with 0.
win -- click 1023
drive_ok win "$title" -- waitcell 1002 "$row" 2 Installing 20000
stop_gui

echo "PASS: installation, network booting, sets, help and settings from the window"
