# bash completion for ppctl: source this, or install it as
# /usr/share/bash-completion/completions/ppctl.
#
# Verbs and options come from the program's own help, so there is nothing to keep in step.

_ppctl_verbs() {
  "$1" --help 2> /dev/null | sed -n '/^Verbs:/,/^$/s/^  \([a-z]*\) .*/\1/p'
}

# _ppctl_options PROGRAM [VERB]: long and short ones.
_ppctl_options() {
  "$@" --help 2> /dev/null | sed -n 's/^  \(-.\), \(--[a-z-]*\).*/\1 \2/p'
}

# _ppctl_takes_value PROGRAM VERB OPTION
_ppctl_takes_value() {
  "$1" ${2:+"$2"} --help 2> /dev/null | grep -q -e "^  \(-., \)\{0,1\}$3\(, --[a-z-]*\)\{0,1\} [A-Z]"
}

# _ppctl_awaits_value PROGRAM VERB WORD: whether the next word is the value of the options in WORD,
# one by its name or several by their letters ("-jt"; "-t5" has it already).
_ppctl_awaits_value() {
  local i
  if [[ $3 == --* ]]; then
    _ppctl_takes_value "$1" "$2" "$3"
    return
  fi
  for ((i = 1; i < ${#3}; i++)); do
    if _ppctl_takes_value "$1" "$2" "-${3:i:1}"; then
      ((i == ${#3} - 1))
      return
    fi
  done
  return 1
}

_ppctl() {
  local program=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]}
  local nodes="/serverAssigned /rgw /rgw/aapState /rgw/configSec /interfaces /system /system/clock"
  local states="unregistered registering registered binding bound error"
  local functions="register unregister subscribe unsubscribe get publish save save_debug clear
    delete init exit sync"
  local verb="" arguments=() word value_next="" i
  COMPREPLY=()

  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == = && ${COMP_WORDS[i - 1]} == --* ]]; then
      value_next=1 # bash takes --timeout=5 for three words
    elif [ -n "$value_next" ]; then
      value_next=""
    elif [[ $word == -?* ]]; then
      _ppctl_awaits_value "$program" "$verb" "$word" && value_next=1
    elif [ -z "$verb" ]; then
      verb=$word
    else
      arguments+=("$word")
    fi
  done
  [ -z "$value_next" ] || return 0

  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W "$(_ppctl_options "$program" ${verb:+"$verb"})" -- "$current"))
    return 0
  fi
  case "$verb:${#arguments[@]}" in
    :*) COMPREPLY=($(compgen -W "$(_ppctl_verbs "$program")" -- "$current")) ;;
    get:0 | set:0 | clear:0 | delete:0 | watch:*)
      COMPREPLY=($(compgen -W "$nodes" -- "$current")) ;;
    set:1)
      [ "${arguments[0]}" != /rgw/aapState ] || COMPREPLY=($(compgen -W "$states" -- "$current")) ;;
    send:0) COMPREPLY=($(compgen -W "$functions" -- "$current")) ;;
    publish:0 | replay:0 | record:0)
      compopt -o filenames 2> /dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    record:*) COMPREPLY=($(compgen -W "$nodes" -- "$current")) ;;
    queues:*)
      mapfile -t COMPREPLY < <(cd /dev/mqueue 2> /dev/null && compgen -f -- "${current#/}" | sed 's|^|/|') ;;
  esac
  return 0
}

complete -F _ppctl ppctl
