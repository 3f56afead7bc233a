#!/bin/bash
# Searches every state of the models in this folder, with spin.
#
#   model/check.sh BUILD-FOLDER
#
# One line for each search. A mistake that is put into a model on purpose has to be found: that is
# what tells the search from one that sees nothing. Exit status 1 when anything is otherwise, 77
# when spin is not installed.
set -euo pipefail

models=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

# compile FOLDER FLAG MODEL [DEFINE...]: makes FOLDER/pan.
compile() {
  local folder=$1 flag=$2 model=$3
  shift 3
  rm -rf "$folder"
  mkdir -p "$folder"
  # Unoptimised: for so few states, optimising would take longer than it saves.
  (cd "$folder" && spin "$@" -a "$models/$model.pml" && cc -w "$flag" -o pan pan.c) \
    >"$folder/compile.log" 2>&1 && return
  cat "$folder/compile.log"
  return 1
}

# search FOLDER: leaves the verifier's words in FOLDER/pan.log. Cycles are searched where the
# verifier was made for that.
search() {
  local options=(-m100000 -w22)
  if [[ $1 == *-cycles ]]; then options+=(-l); fi
  (cd "$1" && ./pan "${options[@]}") >"$1/pan.log" 2>&1 || true
}

# is_exhaustive LOG: nothing was left out, for want of depth, memory or exactness.
is_exhaustive() {
  grep -q '^Full statespace search' "$1" &&
    ! grep -Eqi 'not completed|depth too small|out of memory|bit statespace|truncated|aborting' "$1"
}

# unreached LOG: the steps that no run takes. That a notification finds nobody announced is one of
# them, in StartTicket: that it must be.
unreached() {
  grep -E '^[[:space:]]+[^[:space:]]*\.pml:[0-9]+, state' "$1" | grep -v '"bKept = 0"'
}

failed() {
  cat "$1/pan.log"
  echo "FAILED: $2. How to read it: model/README.md. The search is in $1."
  return 1
}

# holds states|cycles WHAT MODEL [DEFINE...]
holds() {
  local kind=$1 what=$2 model=$3
  shift 3
  local name="$model$*-$kind" flag=-DSAFETY searched='invalid end states[[:space:]]+\+'
  if [[ $kind == cycles ]]; then
    flag=-DNP
    searched='non-progress cycles[[:space:]]+\+'
  fi
  local folder=$build/${name// /}
  compile "$folder" "$flag" "$model" "$@" || return 1
  search "$folder"

  local log=$folder/pan.log
  grep -Eq "$searched" "$log" || failed "$folder" "$what was not searched for" || return 1
  grep -q 'errors: 0$' "$log" || failed "$folder" "$what" || return 1
  is_exhaustive "$log" || failed "$folder" "the search is not exhaustive" || return 1
  if [[ $kind == states ]] && unreached "$log"; then
    failed "$folder" "there are steps in the model that are never taken" || return 1
  fi
  echo "$model: $what: $(awk '/states, stored/ { print $1 }' "$log") states, errors: 0"
}

# finds WHAT-PAN-SAYS MISTAKE MODEL [DEFINE...]
finds() {
  local error=$1 mistake=$2 model=$3 kind=states flag=-DSAFETY
  shift 3
  if [[ $error == 'non-progress cycle' ]]; then
    kind=cycles
    flag=-DNP
  fi
  local folder=$build/$mistake-$kind
  compile "$folder" "$flag" "$model" "-DMISTAKE_$mistake" "$@" || return 1
  search "$folder"
  if ! grep -Fq "$error" "$folder/pan.log" || ! grep -q 'errors: 1$' "$folder/pan.log"; then
    failed "$folder" "the mistake $mistake should have been found by: $error" || return 1
  fi
  echo "$model: the mistake $mistake is found: $error"
}

check_all() {
  local one_opener=(-DOPENERS=1 -DREPORTS=3)

  holds states 'each notification ends its wait' Condition
  holds cycles 'nobody goes round for ever' Condition
  finds 'invalid end state' FLAG_BEFORE_POSTS Condition

  holds states '2 openers, 2 reports' StartTicket
  holds states '1 opener, 3 reports' StartTicket "${one_opener[@]}"
  holds states '2 openers, 2 reports, full ticket table' StartTicket -DMAX_TICKETS=1
  holds cycles 'nobody goes round for ever' StartTicket "${one_opener[@]}"
  finds 'assertion violated (bWoken' ANNOUNCED_ANEW StartTicket
  finds 'assertion violated bKept' WITHDRAWN_AFTER_WAIT StartTicket
  finds 'non-progress cycle' ANNOUNCED_LATE StartTicket "${one_opener[@]}"
  finds 'assertion violated ((keptOption' KEPT_WITHOUT_LOCK StartTicket
  finds 'assertion violated ((m_mapTicket' UNDO_FORGETS_TICKET StartTicket
  finds 'assertion violated ((m_mapTicket' GIVE_BACK_FORGETS_TICKET StartTicket

  holds states 'nobody blocks for ever' LockOrder
  finds 'invalid end state' COUNT_BEFORE_TABLE LockOrder
  finds 'invalid end state' RECORD_BEFORE_TICKET LockOrder
  finds 'invalid end state' USE_BEFORE_LAUNCHERS LockOrder
  finds 'invalid end state' CONNECTIONS_BEFORE_LAUNCHERS LockOrder
  finds 'invalid end state' COUNTED_UNDER_LOCK LockOrder
  finds 'assertion violated (nHeld==0)' CLOSED_UNDER_LOCK LockOrder
}

if (($# != 1)); then
  sed -n '2,8s/^# \?//p' "${BASH_SOURCE[0]}" >&2
  exit 2
fi
if ! command -v spin >/dev/null; then
  echo "Skipped: spin is not installed (Debian package: spin)."
  exit 77
fi
mkdir -p "$1"
build=$(cd "$1" && pwd)
check_all
