# shellcheck shell=bash
# What a script shows while it works: headings, checks, and the verdict. To be sourced.

if [[ -t 1 && -z ${NO_COLOR:-} && ${TERM:-dumb} != dumb ]]; then
  colour_bold=$'\e[1m' colour_good=$'\e[32m' colour_bad=$'\e[1;31m' colour_off=$'\e[0m'
else
  colour_bold='' colour_good='' colour_bad='' colour_off=''
fi
steps_failed=0

heading() { printf '\n%s== %s%s\n' "$colour_bold" "$*" "$colour_off"; }
note() { printf '   %s\n' "$*"; }
passed() { printf '   %sok%s      %s\n' "$colour_good" "$colour_off" "$*"; }

# Counts the failure and goes on; on_failure, when defined, shows what helps to understand it.
failed() {
  printf '   %sFAILED%s  %s\n' "$colour_bad" "$colour_off" "$*"
  steps_failed=$((steps_failed + 1))
  if declare -F on_failure >/dev/null; then on_failure; fi
}

# check WHAT COMMAND...: runs COMMAND, shows WHAT and whether it held.
check() {
  local what=$1
  shift
  if "$@"; then passed "$what"; else failed "$what"; fi
}

# check_soon SECONDS WHAT COMMAND...: the same for what becomes true within SECONDS.
check_soon() {
  local seconds=$1 what=$2
  shift 2
  if wait_for "$seconds" "$@"; then
    passed "$what"
  else
    failed "$what (not within $seconds s)"
  fi
}

# wait_for SECONDS COMMAND...: true as soon as COMMAND is, false when that takes longer.
wait_for() {
  local deadline=$((SECONDS + $1 + 1))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.02
  done
}

not() { ! "$@"; }

indent() { sed 's/^/   | /'; }
