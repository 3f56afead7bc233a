#!/bin/bash
# check_man_test.sh VOKCTL: check_man.sh finds what a page lacks, and what it has too much. Each page is
# vokctl.1 with one thing changed.
set -euo pipefail

vokctl=$1
tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
real=$tests/../docs/man/vokctl.1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
status=0

# try EXPECTED COMMAND...: what is found in the page that the command makes of the real one. EXPECTED is
# the complaint behind the page's name, "" when there is to be none.
try() {
  local expected=$1 page=$folder/page found
  shift
  "$@" <"$real" >"$page"
  if [[ -n $expected ]] && cmp -s "$page" "$real"; then
    printf 'The page is not changed by: %s\n' "$*" >&2
    status=1
  fi
  found=$("$tests/check_man.sh" "$vokctl" "$page" 2>&1) || true
  [[ $found == "${expected:+$page }$expected" ]] && return
  printf 'Instead of "%s" this is found: "%s"\n' "$expected" "$found" >&2
  status=1
}

try '' cat

# Names that begin with another's: "--names" stays, "--name" is what nobody has.
try 'does not know --most of "vokctl blame" where it tells of it.' \
  sed 's/^\.Op Fl -most Ar N$/.Op Ar N/'
try 'names --name in the place of "vokctl list", which does not have it.' \
  sed 's/^only the names of the EMPs/with\n.Fl -name\n&/'
try 'does not know --list of "vokctl call" where it tells of it.' \
  sed '/^\.It Cm version/,$!{/^\.Op Fl -list$/d;/^with$/{N;s/^with\n\.Fl -list$/with it/}}
       s/^\.Fl -list$/it/'

# What another command has: "open" has an option --version, too, and so has vokctl itself.
try 'does not know --version of "vokctl call" where it tells of it.' \
  sed '/^\.Cm call$/,/^\.Xc/{/^\.Op Fl -version Ar V$/d}'
try 'names --hold in the place of "vokctl close", which does not have it.' \
  sed 's/^Closes a connection that$/With\n.Fl -hold\n&/'

# The options of all commands.
try 'does not know --json of "vokctl" where it tells of it.' sed '/^\.It Fl -json$/d'
try 'names --colour, which no command has.' sed 's/^# vokctl status$/& --colour/'

try 'does not know "sweep".' sed 's/^\.It Cm sweep$/.It Em sweep/'
try 'does not know "launcher add-emp".' sed 's/^\.It Cm launcher add-emp /.It Cm launcher add /'

try 'does not know that TERM is heeded.' sed 's/^\.It Ev TERM$/.It Em TERM/'
try 'names COLUMNS, which nothing heeds.' sed 's/^\.It Ev TERM$/.It Ev TERM , COLUMNS/'
try 'does not know that LC_CTYPE is heeded.' sed 's/ , LC_CTYPE , / , /'

exit "$status"
