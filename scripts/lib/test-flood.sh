# shellcheck shell=bash disable=SC2154  # $root comes from whoever sources this
# Floods of clients, and kills of the broker in the middle of its work. To be
# sourced; "$root" is the top of the tree.

# run_flood short|long: six floods of 5 s (long: a minute) each, then 10 (long: 100) kills.
run_flood() {
  local form=$1 build=$root/build status=0
  (
    cd "$root" || exit
    cmake --preset ci && cmake --build --preset ci --target vok_flood_tests
  ) || return

  VOK_FORM=$form VOK_BROKER_UNDER_TEST=$build/bin/vok-broker "$build/bin/vok_flood_tests" ||
    status=$?
  if ((status == 77)); then
    echo "The floods are skipped: no private world can be made here."
    return 0
  fi
  return "$status"
}
