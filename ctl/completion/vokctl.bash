# shellcheck shell=bash
# Completion of vokctl for bash. To be sourced, or installed as
# /usr/share/bash-completion/completions/vokctl.

_vokctl_words() {
  COMPREPLY=()
  local word
  while IFS= read -r word; do
    if [[ -n $word && $word == "$1"* ]]; then COMPREPLY+=("$(printf '%q' "$word")"); fi
  done
}

_vokctl_names() {
  _vokctl_words "$1" < <(vokctl list --names 2>/dev/null)
}

_vokctl_choices() {
  local current=$1
  shift
  _vokctl_words "$current" < <(printf '%s\n' "$@")
}

# _vokctl_options COMMAND: those of all commands, and its own.
_vokctl_options() {
  local options=(--help --json --timeout)
  case $1 in
    '') options+=(--version) ;;
    open) options+=(--version --app --hold --until-eof) ;;
    close) options+=(--force) ;;
    call) options+=(--version --app --list) ;;
    execute) options+=(--arg1) ;;
    list) options+=(--names) ;;
    blame) options+=(--svg --most) ;;
    watch) options+=(--interval --count) ;;
  esac
  printf '%s\n' "${options[@]}"
}

# _vokctl_positional COMMAND NUMBER CURRENT: what stands at that place after the command.
_vokctl_positional() {
  case $1:$2 in
    open:1 | close:1 | call:1 | show:1 | where:1 | blame:1) _vokctl_names "$3" ;;
    launcher:1) _vokctl_choices "$3" register unregister add-emp remove-emp ;;
    ping:1) _vokctl_choices "$3" on off ;;
    debug-level:1) _vokctl_choices "$3" 0 1 2 3 4 ;;
    call:2) _vokctl_choices "$3" GetOption Ping CompareAppID ;;
    execute:1) _vokctl_choices "$3" GetVOKVersion ;;
  esac
}

_vokctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local i command='' launcher='' positionals=0
  COMPREPLY=()
  case $previous in
    --svg)
      compopt -o default 2>/dev/null
      return
      ;;
    --timeout | --app | --arg1 | --most | --interval | --count) return ;;
    --version) if ((COMP_CWORD > 1)); then return; fi ;;
  esac
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --svg | --timeout | --app | --arg1 | --most | --interval | --count) ((++i)) ;;
      --version) if [[ -n $command ]]; then ((++i)); fi ;;
      -*) ;;
      *)
        if [[ -z $command ]]; then
          command=${COMP_WORDS[i]}
        else
          ((++positionals))
          if [[ $command == launcher && $positionals == 1 ]]; then launcher=${COMP_WORDS[i]}; fi
        fi
        ;;
    esac
  done

  if [[ $current == -* && ($command == execute && $positionals -ge 1 ||
    $command == call && $positionals -ge 2) ]]; then
    return # it is passed on
  elif [[ $current == -* ]]; then
    _vokctl_words "$current" < <(_vokctl_options "$command")
  elif [[ -z $command ]]; then
    _vokctl_choices "$current" status list show where doctor blame watch open close version call \
      execute launcher debug-level ping sweep close-all
  elif [[ $launcher == *-emp && $positionals == 1 ]]; then
    _vokctl_names "$current"
  else
    _vokctl_positional "$command" $((positionals + 1)) "$current"
  fi
}

complete -F _vokctl vokctl
