# shellcheck shell=bash
# A Debian 12 of one's own in a folder, to install packages into. To be sourced.
#
# It is entered with mounts, processes, host name, IPC and network of its own; the machine's network is
# lent to apt alone. Takes root.

debian_suite=bookworm
debian_mirror=http://deb.debian.org/debian
debian_folder='' # where all of it lies: the base as an archive, what apt has fetched, the root
debian_root=''   # the root of the one that is entered
# shellcheck disable=SC2034  # for those who source this
debian_why_not=''
debian_keeper='' # process outside whose end is the end of everything inside
debian_init=''   # process 1 inside, by its number outside
debian_group=''  # control group

debian_is_possible() {
  if ((EUID != 0)); then
    debian_why_not='it takes root'
  elif ! unshare --mount --pid --net --uts --ipc --cgroup --fork true 2>/dev/null; then
    debian_why_not='no namespaces may be made here'
  else
    return 0
  fi
  return 1
}

# debian_make FOLDER: a fresh root; the base is fetched once.
debian_make() {
  debian_folder=$1
  debian_root=$1/root
  mkdir -p "$debian_folder/archives/partial"
  [[ -e $debian_folder/base.tar ]] || debian_fetch_base || return
  rm -rf --one-file-system "$debian_root"
  mkdir -p "$debian_root"
  tar -x -C "$debian_root" -f "$debian_folder/base.tar" --numeric-owner || return
  cp -L /etc/resolv.conf "$debian_root/etc/resolv.conf"
  # Of the machine's own settings, only the proxies.
  apt-config dump | grep -E '^Acquire::https?::Proxy' >"$debian_root/etc/apt/apt.conf.d/90proxy" ||
    true
  # Nothing is started by installing it.
  printf '#!/bin/sh\nexit 101\n' >"$debian_root/usr/sbin/policy-rc.d"
  chmod 755 "$debian_root/usr/sbin/policy-rc.d"
}

debian_fetch_base() {
  local new=$debian_folder/base.new log=$debian_folder/debootstrap.log
  rm -rf --one-file-system "$new"
  debootstrap --variant=minbase "$debian_suite" "$new" "$debian_mirror" >"$log" 2>&1 || {
    tail -n 5 "$log" >&2
    return 1
  }
  rm -f "$new"/var/cache/apt/archives/*.deb
  tar -c -C "$new" -f "$debian_folder/base.tar.new" --numeric-owner . &&
    mv "$debian_folder/base.tar.new" "$debian_folder/base.tar" || return # complete or not there
  rm -rf --one-file-system "$new"
}

# debian_enter by-hand|systemd: starts process 1, one that does nothing or systemd.
debian_enter() {
  local mode=$1 ready=$debian_folder/ready log=$debian_folder/init.log
  local init=${BASH_SOURCE[0]%/*}/debian-init.sh
  rm -f "$ready"
  debian_why_not="see $log"
  debian_make_group || return
  (
    if [[ -n $debian_group ]]; then echo "$BASHPID" >"$debian_group/cgroup.procs"; fi
    exec unshare --mount --pid --net --uts --ipc --cgroup --fork --kill-child --propagation private \
      "$init" "$debian_root" "$debian_folder/archives" "$mode" "$ready"
  ) >"$log" 2>&1 </dev/null &
  debian_keeper=$!
  if ! wait_for 20 test -e "$ready"; then
    debian_leave
    return 1
  fi
  debian_init=$(cat "/proc/$debian_keeper/task/$debian_keeper/children")
  debian_init=${debian_init%% *}
  # The machine's tool in there: a minimal Debian has none.
  nsenter --target "$debian_init" --net ip link set lo up || return
  if [[ $mode == systemd ]] && ! wait_for 60 debian_has_booted; then
    # shellcheck disable=SC2034  # for those who source this
    debian_why_not='it did not come up within a minute'
    debian_leave
    return 1
  fi
}

debian_has_booted() {
  [[ $(inside systemctl is-system-running 2>/dev/null) =~ ^(running|degraded)$ ]]
}

# systemd wants to manage a tree of control groups: one below that of this process.
debian_make_group() {
  local top
  top=$(findmnt --noheadings --first-only --types cgroup2 --output TARGET) || return 0
  debian_group=$top/vok-debian-$$
  mkdir -p "$debian_group" 2>/dev/null || debian_group=''
}

# Ends everything inside; the files stay.
debian_leave() {
  if [[ -n $debian_keeper ]]; then
    kill -KILL "$debian_keeper" 2>/dev/null || true
    wait "$debian_keeper" 2>/dev/null || true
  fi
  debian_keeper='' debian_init=''
  if [[ -n $debian_group ]]; then wait_for 10 debian_remove_group || true; fi
  debian_group=''
}

# True once it has gone: what has been killed may still be ending.
debian_remove_group() {
  find "$debian_group" -depth -type d -exec rmdir {} \; 2>/dev/null || true
  [[ ! -d $debian_group ]]
}

# inside COMMAND...
inside() {
  nsenter --target "$debian_init" --mount --pid --net --uts --ipc --cgroup -- \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@" </dev/null
}

# debian_with_network COMMAND...: inside, but for the network, which is the machine's.
debian_with_network() {
  nsenter --target "$debian_init" --mount --pid --uts --ipc --cgroup -- \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive "$@" </dev/null
}

# debian_apt ARGUMENT...: apt-get inside, with the machine's network.
debian_apt() {
  if [[ ! -e $debian_root/var/lib/apt/lists-are-new && $1 == install ]]; then
    debian_run_apt update || return
    touch "$debian_root/var/lib/apt/lists-are-new"
  fi
  debian_run_apt --yes --no-install-recommends "$@"
}

debian_run_apt() { debian_quietly debian_with_network apt-get -q "$@"; }

# debian_quietly COMMAND...: its output is shown when it fails.
debian_quietly() {
  local output
  output=$("$@" 2>&1 </dev/null) && return
  indent <<<"$output"
  return 1
}

# Every file, but those of mounts.
debian_list_files() {
  (cd "$debian_root" && find . -xdev \( -path ./proc -o -path ./sys -o -path ./dev -o -path ./run \
    -o -path ./tmp -o -path ./packages \) -prune -o -print | LC_ALL=C sort)
}
