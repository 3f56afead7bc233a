# shellcheck shell=bash
# Floods of clients, and kills of the broker in the middle of its work. To be sourced.

# run_flood short|long: six floods of 5 s (long: a minute) each, then 10 (long: 100) kills. Builds
# what it needs in the build folder of the preset ci, or in $VOK_BUILD, which has to be configured.
run_flood() {
  local form=$1 root build status=0
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
  build=${VOK_BUILD:-$root/build}
  cmake --build "$build" --target vok_flood_tests || return

  VOK_FLOOD=$form VOK_BROKER_UNDER_TEST=$build/bin/vok-broker "$build/bin/vok_flood_tests" ||
    status=$?
  if ((status == 77)); then
    echo "The floods are skipped: no private world can be made here."
    return 0
  fi
  return "$status"
}
