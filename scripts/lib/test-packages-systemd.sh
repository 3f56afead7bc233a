# shellcheck shell=bash disable=SC2154  # from test-packages.sh, which sources this
# The packages in a Debian that systemd has started: the unit at every moment of its life.

packages_try_under_systemd() {
  heading "A Debian 12 that systemd has started"
  debian_enter by-hand || { failed "entering it: $debian_why_not"; return; }
  check "apt installs systemd" debian_apt install systemd dbus
  packages_install 1
  packages_lay_out_image
  packages_build_inside
  debian_leave
  if ! debian_enter systemd; then
    note "Left out: systemd does not start here as process 1 of a namespace: $debian_why_not"
    return
  fi
  packages_unit_starts
  packages_unit_is_open_to_emps
  packages_unit_restarts
  packages_unit_stops
  packages_unit_stops_while_it_starts
  packages_unit_without_plugins
  packages_unit_upgrades
  packages_unit_purges
  debian_leave
}

# property NAME: of the unit.
property() { inside systemctl show -P "$1" vok-broker.service; }
property_is() { [[ $(property "$1") == "$2" ]]; }

packages_unit_starts() {
  check_soon "$package_start_seconds" "the broker has been started with the system" \
    property_is ActiveState active
  check "it served before the unit counted as started" packages_serves
  check "systemd watches the daemon" packages_main_pid_is_daemon
  packages_use
  check "the EMP that was built in here opens" packages_client_echoes Clock
  inside rm -r /usr/bin/emps/empClock
}

packages_main_pid_is_daemon() {
  local pid
  pid=$(property MainPID)
  [[ $pid != 0 && $(inside readlink "/proc/$pid/exe") == /usr/bin/vok-broker ]]
}

# An image of an EMP, made here: its mount has to be seen by everybody.
packages_lay_out_image() {
  local content=$package_folder/content folder=$debian_root/opt/down/emps/empImage_img
  rm -rf "$content"
  mkdir -p "$content" "$folder"
  cp "$debian_root/usr/libexec/vok-broker/examples/example-emp" "$content/empImage"
  mksquashfs "$content" "$folder/empImage.img" -noappend -quiet -no-progress -all-root >/dev/null
}

# packages_keep_open EMP: prints the client's and the EMP's port.
packages_keep_open() {
  inside "$package_example_client" --open-only "$1" |
    sed -n 's/^opened .*clientPort=\([^ ]*\) empPort=\([^ ]*\).*/\1 \2/p'
}

packages_unit_is_open_to_emps() {
  local ports pid
  if ! images_work_inside; then
    note "Without images: no loop device can be had here."
  else
    ports=$(packages_keep_open Image)
    check "an EMP from an image is opened" test -n "$ports"
    check "others see its mount" packages_answers /opt/down/emps/empImage \
      inside cat /proc/1/mountinfo
    # shellcheck disable=SC2086  # two words
    inside "$package_example_client" --close-only $ports Image >/dev/null || true
    check_soon 10 "it is unmounted when nobody uses it" packages_image_is_unmounted
  fi

  ports=$(packages_keep_open Example)
  check "an EMP is kept open" test -n "$ports"
  pid=$(pid_inside '.*/empExample')
  packages_emp=$pid
  check "an EMP has the limits that it should have" packages_answers '1024 6144 files' \
    inside sh -c "awk '/Max open files/ { print \$4, \$5, \$6 }' /proc/$pid/limits"
}

images_work_inside() { inside sh -c 'test -e /dev/loop-control'; }
packages_image_is_unmounted() { ! inside grep -q empImage /proc/1/mountinfo; }

packages_unit_restarts() {
  local before
  before=$(property MainPID)
  inside_kill KILL "$before"
  check_soon "$package_start_seconds" "it is restarted when it has crashed" packages_is_new "$before"
  check "an EMP has survived the crash" inside test -e "/proc/$packages_emp/exe"
  check "systemd watches the daemon, not the EMP" packages_main_pid_is_daemon
  check "it was one restart" property_is NRestarts 1
  before=$(property MainPID)
  inside_kill TERM "$before"
  check_soon "$package_start_seconds" "and when it has ended in another way" \
    packages_is_new "$before"
  check "it serves" packages_client_echoes
}

packages_was_restarted() { (($(property NRestarts) > 0)); }

# Which process it is comes last: one that ends between the looks is no new one.
packages_is_new() {
  local pid
  property_is ActiveState active && pid=$(property MainPID) && [[ $pid != 0 && $pid != "$1" ]]
}

packages_unit_stops() {
  check "it stops" inside systemctl stop vok-broker
  check "which is a success" property_is Result success
  check "it is not failed" property_is ActiveState inactive
  check "the flag has gone" not packages_serves
  check "an EMP has survived the stop" inside test -e "/proc/$packages_emp/exe"
  check "it starts beside that EMP" inside systemctl start vok-broker
  check "systemd watches the daemon, not the EMP" packages_main_pid_is_daemon
  inside systemctl stop vok-broker
}

# Whenever the stop comes: while launch looks for the daemon, and while that one is awaited.
packages_unit_stops_while_it_starts() {
  local seconds
  for seconds in 0 0 0 0.03 0.06 0.1 0.2 0.5 1; do
    check "a stop $seconds s into a start leaves no broker" packages_unit_is_stopped_after "$seconds"
  done
  check "an EMP has survived all that" inside test -e "/proc/$packages_emp/exe"
}

# shellcheck disable=SC2016  # the shell inside expands it
packages_unit_is_stopped_after() {
  packages_forget_failures
  inside sh -c 'systemctl --no-block start vok-broker && sleep "$1" && systemctl stop vok-broker' \
    sh "$1" && [[ -z $(pid_inside /usr/bin/vok-broker) ]] && property_is ActiveState inactive &&
    property_is Result success
}

# So many starts are refused otherwise.
packages_forget_failures() { inside systemctl reset-failed vok-broker 2>/dev/null || true; }

packages_unit_without_plugins() {
  inside mv /opt/down/pepper /opt/down/put-away
  packages_forget_failures
  inside systemctl start vok-broker
  check "it is not tried where there is no plug-in set" property_is ConditionResult no
  check "which is no failure" property_is ActiveState inactive
  # With a set that cannot be mounted it is tried, and fails: at once, though there is an EMP.
  inside install -D /dev/null /usr/bin/emps/empPepperPlugins/empPepperPlugins.img
  check "a start that fails is told" \
    packages_answers 'exited with error code' inside systemctl start vok-broker
  check_soon "$package_start_seconds" "and tried again" packages_was_restarted
  inside systemctl stop vok-broker
  check "the stop of that leaves no broker" test -z "$(pid_inside /usr/bin/vok-broker)"
  inside_kill TERM "$packages_emp"

  inside rm -r /usr/bin/emps/empPepperPlugins
  inside rmdir /opt/down/pepper # where the mount was tried
  inside mv /opt/down/put-away /opt/down/pepper
  packages_forget_failures
  check "it starts again" inside systemctl start vok-broker
  check "and is watched" packages_main_pid_is_daemon
}

packages_unit_upgrades() {
  local before
  before=$(property MainPID)
  rm -rf "$debian_root/packages"
  cp -r "$package_folder/2" "$debian_root/packages"
  check "dpkg upgrades it while it runs" debian_quietly inside sh -c 'dpkg -i /packages/*.deb'
  check "the broker has been restarted" packages_is_new "$before"
  check "it serves" packages_client_echoes
}

packages_nothing_serves() {
  ! packages_serves && [[ -z $(pid_inside '/usr/bin/vok-broker\( (deleted)\)\?') ]]
}

packages_unit_purges() {
  check "dpkg purges it while it runs" debian_quietly inside dpkg --purge "${package_names[@]}"
  check "nothing serves any more" packages_nothing_serves
  check "there is no such unit" property_is LoadState not-found
  local path
  for path in /run/vok-broker /run/vok-broker.pid /opt/down/emps/empPepperPlugins /usr/bin/vok-broker /usr/bin/emps \
    /etc/systemd/system/multi-user.target.wants/vok-broker.service \
    /var/lib/systemd/deb-systemd-helper-enabled/vok-broker.service.dsh-also; do
    check "$path has gone" not inside test -e "$path"
  done
}
