# shellcheck shell=bash
# Where the demo's broker runs. To be sourced after steps.sh.
#
# Either in a private world: mount, network and process id namespaces of its own, in which the folders
# that the broker uses are laid out afresh. All of it vanishes with its last process.
#
# Or, where that is not permitted, on the machine itself: then every folder that is made carries a
# marker, so that only what was made here is ever removed.

world_marker=.made-by-the-vok-demo
world_made=()

# enter_namespaces COMMAND...: runs COMMAND as process 1 of new namespaces, as root in them.
enter_namespaces() {
  local kinds=(--mount --net --pid --fork --kill-child --mount-proc --propagation private)
  if ! unshare "${kinds[@]}" true 2>/dev/null; then
    kinds=(--user --map-root-user "${kinds[@]}")
  fi
  unshare "${kinds[@]}" "$@"
}

# furnish_world STAGE: in new namespaces. What STAGE/programs holds is in /run/vok-demo afterwards.
furnish_world() {
  local stage=$1 layers=/run/vok-demo-layers
  mkdir -p "$stage/world"
  mount -t tmpfs -o mode=755 tmpfs "$stage/world"
  cp -r "$stage/programs/." "$stage/world"
  mount -t tmpfs -o mode=755 tmpfs /run
  mkdir -p /run/vok-demo "$layers/upper" "$layers/work"
  mount --bind "$stage/world" /run/vok-demo
  mount -t tmpfs -o mode=755 tmpfs /opt
  mount -t tmpfs -o mode=1777 tmpfs /tmp
  # /usr/bin as it is, and writable for this world alone.
  mount -t overlay -o "lowerdir=/usr/bin,upperdir=$layers/upper,workdir=$layers/work" \
    overlay /usr/bin
  rm -rf /usr/bin/emps
  ip link set lo up
}

# images_can_be_mounted FOLDER: says on stderr why not.
images_can_be_mounted() {
  local image=$1/probe.img content=$1/probe point=$1/point status=0
  mkdir -p "$content" "$point"
  make_image "$content" "$image"
  mount -t squashfs -o loop,ro "$image" "$point" || status=$?
  if ((status == 0)); then umount "$point"; fi
  return "$status"
}

# make_image FOLDER IMAGE
make_image() {
  mksquashfs "$1" "$2" -noappend -quiet -no-progress -all-root >/dev/null
}

# machine_is_free PATH...: says on stderr what is in the way of a broker on this machine. What an
# earlier run left behind is removed.
machine_is_free() {
  local path in_the_way=0
  if [[ -n $(ss -Hltn 'sport = :50000') ]]; then
    echo "Port 50000 is taken: is a broker running?" >&2
    in_the_way=1
  fi
  for path in "$@"; do
    if [[ -e $path/$world_marker ]]; then rm -rf "$path"; fi
    if [[ -e $path || -L $path ]]; then
      echo "$path exists, and was not made by this demo." >&2
      in_the_way=1
    fi
  done
  return "$in_the_way"
}

# make_folder PATH: with its parents. What was missing is marked, and goes with remove_made; so does
# what an earlier run has marked.
make_folder() {
  [[ -d $1 && ! -e $1/$world_marker ]] && return
  make_folder "$(dirname "$1")"
  mkdir -p "$1"
  touch "$1/$world_marker"
  world_made+=("$1")
}

# Innermost first. A folder that has got other contents meanwhile stays.
remove_made() {
  local i folder
  for ((i = ${#world_made[@]} - 1; i >= 0; i--)); do
    folder=${world_made[i]}
    [[ -d $folder ]] || continue
    rm -f "$folder/$world_marker"
    rmdir --ignore-fail-on-non-empty "$folder"
  done
  world_made=()
}
