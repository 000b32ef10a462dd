#!/bin/bash
# Makes the boot test's kit from Debian packages: a kernel (record 120), a
# busybox RAM disk whose init mounts the boot disk and prints every file's
# name, size and checksum on the serial console (132), a boot-loader
# configuration (124) and Debian's SYSLINUX installer (134). The kit is
# kept in CACHE so that a second run takes no download.
#   boot_kit.sh TARNLIFT CACHE        -> CACHE/records/{120,124,132,134}.bin
set -eu
tarnlift=$1
cache=$2
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
records=$cache/records
if [ -f "$records/120.bin" ] && [ -f "$records/124.bin" ] && [ -f "$records/132.bin" ] && [ -f "$records/134.bin" ]; then
  exit 0
fi
rm -rf "$cache/work" "$records"
mkdir -p "$cache/work" "$records"
cd "$cache/work"

# The cloud kernel: the meta package names the real one.
kernel_package=$(apt-cache depends linux-image-cloud-amd64 2>/dev/null | awk '/Depends: linux-image-/ {print $2; exit}')
if [ -z "$kernel_package" ]; then
  apt-get update -qq >/dev/null 2>&1 || true
  kernel_package=$(apt-cache depends linux-image-cloud-amd64 2>/dev/null | awk '/Depends: linux-image-/ {print $2; exit}')
fi
[ -n "$kernel_package" ] || { echo "boot kit: no linux-image-cloud-amd64 in the package lists" >&2; exit 1; }
if ! apt-get download "$kernel_package" >/dev/null 2>&1; then
  apt-get update -qq >/dev/null 2>&1 || true
  apt-get download "$kernel_package" >/dev/null 2>&1 || { echo "boot kit: cannot download $kernel_package" >&2; exit 1; }
fi
dpkg-deb -x ./"$kernel_package"_*.deb kernel
vmlinuz=$(ls kernel/boot/vmlinuz-* | head -n 1)
moddir=$(ls -d kernel/lib/modules/* | head -n 1)

# The RAM disk: busybox, the modules that reach an IDE disk with FAT on it,
# and an init that reports the disk's files.
busybox=$(command -v busybox || echo /bin/busybox)
mkdir -p initrd/bin initrd/lib/modules initrd/proc initrd/sys initrd/dev initrd/mnt
cp "$busybox" initrd/bin/busybox
modules="scsi_common scsi_mod libata ata_piix sd_mod fat vfat nls_ascii nls_cp437 nls_utf8"
for m in $modules; do
  found=$(find "$moddir" -name "$m.ko*" | head -n 1)
  [ -n "$found" ] || { echo "boot kit: module $m missing" >&2; exit 1; }
  case "$found" in
    *.ko.xz) xz -dc "$found" > "initrd/lib/modules/$m.ko" ;;
    *.ko.zst) zstd -qdc "$found" > "initrd/lib/modules/$m.ko" ;;
    *) cp "$found" "initrd/lib/modules/$m.ko" ;;
  esac
done
cat > initrd/init <<INIT
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
for m in $modules; do insmod /lib/modules/\$m.ko || echo "TLERROR insmod \$m"; done
i=0
while [ ! -b /dev/sda ] && [ \$i -lt 200 ]; do sleep 0.1; i=\$((i + 1)); done
if mount -t vfat -o ro /dev/sda /mnt; then
  echo "TLBEGIN"
  cd /mnt
  for f in *; do
    echo "TLFILE \$f \$(stat -c %s "\$f") \$(sha256sum "\$f" | cut -d ' ' -f 1)"
  done
  echo "TLEND"
else
  echo "TLERROR mount"
fi
poweroff -f
INIT
chmod +x initrd/init
(cd initrd && find . | cpio -o -H newc --quiet | gzip -9) > initrd.rgz

cat > syslinux.cfg <<'CFG'
SERIAL 0 115200
DEFAULT linux
PROMPT 0
TIMEOUT 0
LABEL linux
  KERNEL linux
  APPEND initrd=initrd.rgz console=ttyS0,115200 panic=-1 loglevel=3
CFG

"$tarnlift" bootimage wrap 120 "$vmlinuz" "$records" >/dev/null 2>&1
"$tarnlift" bootimage wrap 132 initrd.rgz "$records" >/dev/null 2>&1
"$tarnlift" bootimage wrap 124 syslinux.cfg "$records" >/dev/null 2>&1
"$tarnlift" bootimage wrap 134 "$(command -v syslinux)" "$records" >/dev/null 2>&1
# The unwrapped files stay for the comparison; the rest goes.
cp "$vmlinuz" "$cache/linux"
cp initrd.rgz "$cache/initrd.rgz"
cp syslinux.cfg "$cache/syslinux.cfg"
cd "$cache"
rm -rf work
