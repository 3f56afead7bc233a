#!/bin/bash
# check_man.sh [VOKCTL]: the manual pages are well-formed, and vokctl's names every command and every
# option that the program has.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
vokctl=${1:-}
page=docs/man/vokctl.1
status=0
complain() {
  printf '%s\n' "$*" >&2
  status=1
}

check_form() {
  local file complaints checked=0
  for file in docs/man/*.[0-9]; do
    if command -v mandoc >/dev/null; then
      checked=1
      complaints=$(mandoc -Tlint -W warning "$file" 2>/dev/null) || complain "$complaints"
    fi
    if command -v man >/dev/null && command -v groff >/dev/null; then
      checked=1
      complaints=$(LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l -Tutf8 -Z "$file" 2>&1 >/dev/null)
      [[ -z $complaints ]] || complain "$file: $complaints"
    fi
  done
  if ((!checked)); then
    echo "Neither mandoc nor man is installed."
    exit 77
  fi
}

# commands_of TEXT: what a help lists, one a line: indented by two, and followed by its description.
commands_of() { sed -nE 's/^  ([a-z][a-z-]+) +[A-Z].*/\1/p' <<<"$1"; }
options_of() { grep -oE '(^|[ ,])--[a-z][a-z0-9-]+' <<<"$1" | tr -d ' ,' | sort -u; }

# names_options TEXT COMMAND
names_options() {
  local option
  for option in $(options_of "$1"); do
    grep -qF -- "Fl -${option#--}" "$page" || complain "$page does not know $option of \"$2\"."
  done
}

check_vokctl() {
  local help command sub
  help=$("$vokctl" --help)
  local commands
  commands=$(commands_of "$help")
  [[ $(wc -w <<<"$commands") -ge 10 ]] || complain "No commands are found in: $help"
  names_options "$help" vokctl
  for command in $commands; do
    help=$("$vokctl" "$command" --help)
    names_options "$help" "vokctl $command"
    if [[ $command != launcher ]]; then
      grep -qE "Cm $command( |\$)" "$page" || complain "$page does not know \"$command\"."
      continue
    fi
    for sub in $(commands_of "$help"); do
      grep -qE "Cm $command $sub( |\$)" "$page" || complain "$page does not know \"$command $sub\"."
    done
  done
}

check_form
if [[ -n $vokctl ]]; then check_vokctl; fi
exit "$status"
