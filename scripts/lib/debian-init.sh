#!/bin/bash
# debian-init.sh ROOT ARCHIVES MODE READY: process 1 of new namespaces; makes ROOT the root, and
# becomes systemd, or somebody who does nothing but reap. READY is made before that.
set -euo pipefail

root=$1 archives=$2 mode=$3 ready=$4

# make_devices FOLDER: nodes of its own, for whoever is root in there changes owners and modes, and the
# machine's would be what everybody else has. Neither its console nor its kernel log is among them.
make_devices() {
  local dev=$1 name number n
  mount -t tmpfs -o mode=755 tmpfs "$dev"
  while read -r name number; do
    # shellcheck disable=SC2086  # two numbers
    mknod -m 666 "$dev/$name" c $number
  done <<'TEXT'
null 1 3
zero 1 5
full 1 7
random 1 8
urandom 1 9
tty 5 0
TEXT
  mkdir -m 755 "$dev/pts" "$dev/shm"
  mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts "$dev/pts"
  mount -t tmpfs -o mode=1777 tmpfs "$dev/shm"
  ln -s pts/ptmx "$dev/ptmx"
  ln -s /proc/self/fd "$dev/fd"
  ln -s /proc/self/fd/0 "$dev/stdin"
  ln -s /proc/self/fd/1 "$dev/stdout"
  ln -s /proc/self/fd/2 "$dev/stderr"
  # Loop devices are the machine's; those that are made later have no node here.
  if [[ -e /dev/loop-control ]]; then
    mknod -m 600 "$dev/loop-control" c 10 237
    for ((n = 0; n < 64; n++)); do mknod -m 600 "$dev/loop$n" b 7 "$n"; done
  fi
}

mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
# Kernel settings that are not this namespace's alone.
mount --bind "$root/proc/sys" "$root/proc/sys"
mount -o remount,bind,ro "$root/proc/sys"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup" || [[ $mode != systemd ]]
make_devices "$root/dev"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mount --bind "$archives" "$root/var/cache/apt/archives"
touch "$ready"

cd "$root"
pivot_root . mnt
umount -l /mnt

clean=(env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin)
if [[ $mode == systemd ]]; then
  rm -f /usr/sbin/policy-rc.d
  exec "${clean[@]}" /lib/systemd/systemd --show-status=no
fi
exec "${clean[@]}" /bin/bash -c 'while :; do sleep 1; done'
