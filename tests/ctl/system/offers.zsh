# offers.zsh FOLDER: what zsh offers, with the completion of vokctl in FOLDER, at the end of each line of
# the input; a line for each, sorted, with a blank after each offer.
#
# Completion works only where somebody types, so a shell is given a terminal. It answers through a pipe
# of its own, for what it draws on the terminal is not for reading.
zmodload zsh/zpty || exit
export TERM=dumb
folder=$(mktemp -d) || exit
mkfifo $folder/answer
exec {answers}<>$folder/answer # open for writing, too: it never ends

cat >$folder/setup <<'SETUP'
folder=$2
fpath=($1 $fpath)
autoload -U compinit
compinit -u -D
PROMPT=''
zle -C list-offers list-choices _main_complete
# Every function of the completion system adds its matches by this.
compadd() {
  local -a matches
  builtin compadd -O matches "$@"
  offered+=($matches)
  builtin compadd "$@"
}
answer() {
  typeset -ga offered=()
  zle list-offers
  print -r -- ${(ou)offered} >$folder/answer
  BUFFER=''
}
zle -N answer
bindkey '^T' answer
print -r -- ready >$folder/answer
SETUP

ask() {
  zpty -w "${@:2}" shell "$1"
  read -t 20 -ru $answers answer || exit
  while zpty -rt shell drawn; do :; done # its terminal must not be full
}

zpty shell zsh -f -i || { rm -r $folder; exit 1 }
trap 'zpty -d shell; rm -r $folder' EXIT # not before: the shell would inherit it
ask ". $folder/setup ${(q)1} $folder"
while IFS= read -r line; do
  ask "$line"$'\x14' -n
  print -r -- "${answer:+$answer }"
done
