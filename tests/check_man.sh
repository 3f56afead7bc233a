#!/bin/bash
# check_man.sh [VOKCTL [PAGE]]: the manual pages are well-formed, and vokctl's tells of what the program
# has, and of nothing else: of every command and its options in the command's item, of the options of all
# commands in the section OPTIONS, of every environment variable that is heeded. With PAGE, only whether
# that one does, in vokctl.1's place.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
vokctl=${1:-}
page=${2:-docs/man/vokctl.1}
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

# --- What the program has

# commands_of HELP: what a help lists, one a line: indented by two, and followed by its description.
commands_of() { sed -nE 's/^  ([a-z][a-z-]+) +[A-Z].*/\1/p' <<<"$1"; }
# options_of HELP: what a help lists; what its sentences mention may be another command's.
options_of() { sed -nE 's/^  (-[a-z],)?(--[a-z][a-z0-9-]*).*/\2/p' <<<"$1" | sort -u; }

# What the code asks for, by itself and through the C library.
variables_of_the_code() {
  local source=(ctl/*.cpp)
  grep -hoE '(getenv|IsSet)\("[A-Z_]+"' "${source[@]}" | grep -oE '[A-Z_]{2,}'
  if grep -q 'setlocale(LC_CTYPE' "${source[@]}"; then printf '%s\n' LC_ALL LC_CTYPE LANG; fi
  if grep -q 'localtime' "${source[@]}"; then echo TZ; fi
}

# --- What the page tells

# Each long option that the page has, after the place where it stands and a tab. The place is the
# command's name within its item, and else the section's.
options_of_page() {
  awk '
    function is_macro(word) { return word ~ /^\.?[A-Z][a-z]$/ }
    # The words between the first Cm of a line and the next macro, without what is no name.
    function command_in(n, words,   i, name) {
      for (i = 1; i <= n && words[i] !~ /^\.?Cm$/; i++) continue
      for (i++; i <= n && words[i] ~ /^[a-z][a-z-]*$/; i++) name = name (name == "" ? "" : " ") words[i]
      return name
    }
    function tell_flags(n, words,   i, flag) {
      for (i = 1; i <= n; i++)
        if (is_macro(words[i])) flag = words[i] ~ /^\.?Fl$/
        else if (flag && words[i] ~ /^-[a-z]/) print place "\t-" words[i]
    }
    function tell_text(line) {
      while (match(line, /--[a-z][a-z0-9-]*/)) {
        print place "\t" substr(line, RSTART, RLENGTH)
        line = substr(line, RSTART + RLENGTH)
      }
    }
    /^\.\\"/ { next }
    !/^\./ { tell_text($0); next }
    { n = split($0, words, " ") }
    /^\.Sh / { place = section = substr($0, 5); heading = 0 }
    /^\.El/ { place = section }
    /^\.It/ { place = section; heading = 1 }
    heading && place == section && (name = command_in(n, words)) != "" { place = name }
    /^\.It/ && !/ Xo/ { heading = 0 }
    /^\.Xc/ { heading = 0 }
    { tell_flags(n, words) }
  ' "$page"
}

# options_in PLACE
options_in() { awk -F '\t' -v place="$1" '$1 == place { print $2 }' <<<"$told" | sort -u; }

has_item() { grep -qE "Cm $1( [A-Z]|\$)" "$page" || grep -qE "Cm $1 Cm " "$page"; }

# --- Both

# without OPTIONS OTHERS: the lines of the first that are not among those of the second.
without() { comm -23 <(printf '%s\n' "$1") <(printf '%s\n' "$2") | sed '/^$/d'; }

# compare PLACE HELP WHAT: every option of the help stands in that place, and no other one does. Those
# of all commands may stand there, too.
compare() {
  local there told_there option
  there=$(options_of "$2")
  told_there=$(options_in "$1")
  # A command's help lists --help, which has its place among those of all.
  [[ $1 == OPTIONS ]] || there=$(without "$there" --help)
  for option in $(without "$there" "$told_there"); do
    complain "$page does not know $option of \"$3\" where it tells of it."
  done
  for option in $(without "$told_there" "$(printf '%s\n%s\n' "$there" "$shared" | sort -u)"); do
    complain "$page names $option in the place of \"$3\", which does not have it."
    known+=$'\n'$option
  done
  known+=$'\n'$there
}

check_command() {
  local help sub
  help=$("$vokctl" "$1" --help)
  if [[ $1 != launcher ]]; then
    has_item "$1" || complain "$page does not know \"$1\"."
    compare "$1" "$help" "vokctl $1"
    return
  fi
  for sub in $(commands_of "$help"); do
    has_item "$1 $sub" || complain "$page does not know \"$1 $sub\"."
    compare "$1 $sub" "$("$vokctl" "$1" "$sub" --help)" "vokctl $1 $sub"
  done
}

check_vokctl() {
  local help commands command option known='' told shared
  help=$("$vokctl" --help)
  commands=$(commands_of "$help")
  [[ $(wc -w <<<"$commands") -ge 10 ]] || complain "No commands are found in: $help"
  told=$(options_of_page)
  shared=$(options_of "$help")
  compare OPTIONS "$help" vokctl
  for command in $commands; do check_command "$command"; done
  # Wherever else: in the synopsis, in an example.
  for option in $(without "$(cut -f 2 <<<"$told" | sort -u)" "$(sort -u <<<"$known")"); do
    complain "$page names $option, which no command has."
  done
}

check_environment() {
  local variable heeded told
  heeded=$(variables_of_the_code | sort -u)
  told=$(sed -n 's/^\.It Ev //p' "$page" | tr -d , | tr -s ' ' '\n' | sort -u)
  for variable in $(without "$heeded" "$told"); do
    complain "$page does not know that $variable is heeded."
  done
  for variable in $(without "$told" "$heeded"); do
    complain "$page names $variable, which nothing heeds."
  done
}

if (($# < 2)); then check_form; fi
if [[ -n $vokctl ]]; then
  check_vokctl
  check_environment
fi
exit "$status"
