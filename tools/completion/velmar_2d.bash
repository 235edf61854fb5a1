# Completion of velmar_2d for bash. It asks the program's own help, so that it knows every option.
_velmar_2d() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command="" i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in draw | vtu | stats) command=${COMP_WORDS[i]} ;; esac
  done
  local help options value
  help=$("${COMP_WORDS[0]}" $command --help 2>/dev/null)
  options=$(sed -nE 's/^  (-[a-z],)?(--[a-z-]+).*/\2/p' <<<"$help")
  COMPREPLY=()
  if [ -z "$command" ]; then
    COMPREPLY=($(compgen -W "draw vtu stats $options" -- "$word"))
    return
  fi
  # What the option before stands for: "FILE", "a|b|c" to choose from, another word, or nothing.
  value=$(sed -nE "s/^  (-o,)?$before ([^ ]+) .*/\2/p; s/^  $before,--output ([^ ]+) .*/\1/p" <<<"$help")
  case $before:$value in
    -*:FILE) ;;
    -*:*"|"*) COMPREPLY=($(compgen -W "${value//|/ }" -- "$word")) && return ;;
    -*:?*) return ;;
  esac
  if [[ $word == -* ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$word"))
  else
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}
complete -F _velmar_2d velmar_2d
