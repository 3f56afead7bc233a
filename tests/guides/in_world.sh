#!/bin/bash
# Follows a guide in a private world in which the broker is installed, as its packages would be.
#
#   in_world.sh INSTALLED GUIDE.md
#
# INSTALLED is what "cmake --install" has put below its DESTDIR: a layer over /usr. The world has
# mounts, a network and processes of its own. Exit status 77: a world cannot be had here.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
# shellcheck source=scripts/lib/world.sh
source "$root/scripts/lib/world.sh"

skipped=77

# furnish INSTALLED GUIDE
furnish() {
  mount -t tmpfs -o mode=755 tmpfs /run
  mkdir -p /run/guide "$1/usr/bin/emps"
  mount -t overlay -o "lowerdir=$1/usr:/usr" overlay /usr
  mount -t tmpfs -o mode=755 tmpfs /usr/bin/emps # which is all of /usr that a guide writes to
  cp "$root/tests/guides/guide.py" /run/guide
  cp "$2" /run/guide/guide.md
  mount -t tmpfs -o mode=755 tmpfs /opt
  mount -t tmpfs -o mode=1777 tmpfs /tmp
  ip link set lo up
  mkdir /tmp/home
}

# The first process of the world. follow INSTALLED GUIDE
follow() {
  local without=(--without packages)
  furnish "$@"
  images_can_be_mounted /run 2>/dev/null || without+=(--without images)
  cd /tmp/home
  # What a shell of root has on a fresh machine, and nothing of whoever runs the test.
  exec env -i HOME=/tmp/home LANG=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    python3 -B /run/guide/guide.py --on-this-machine "${without[@]}" /run/guide/guide.md
}

main() {
  local reason
  if [[ $1 == --inside ]]; then follow "$2" "$3"; fi

  if ! reason=$(enter_namespaces true 2>&1); then
    echo "No private world: $reason" >&2
    exit "$skipped"
  fi
  enter_namespaces "${BASH_SOURCE[0]}" --inside "$(realpath "$1")" "$(realpath "$2")"
}

main "$@"
