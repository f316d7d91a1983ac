# Completion of ferrogate(8) for bash. Needs no library of completion functions.

_ferrogate_commands="--set --test --list --delete --version --help"

# The options of a command. The hidden --credential is known here but never offered.
_ferrogate_options() { # COMMAND
  case $1 in
    --set) echo --username --password --machine --server --authreq --authtype --verbose ;;
    --test) echo --opx --server --username --password --machine --verbose ;;
    --list | --delete) echo --verbose ;;
    --credential) echo --username --password ;;
  esac
}

# The long form of a letter.
_ferrogate_long() { # LETTER
  case $1 in
    S) echo --set ;;
    T) echo --test ;;
    L) echo --list ;;
    D) echo --delete ;;
    v) echo --version ;;
    h) echo --help ;;
    C) echo --credential ;;
    u) echo --username ;;
    p) echo --password ;;
    m) echo --machine ;;
    s) echo --server ;;
    r) echo --authreq ;;
    t) echo --authtype ;;
    c) echo --opx ;;
    V) echo --verbose ;;
  esac
}

# What may not stand beside an option.
_ferrogate_excluded() { # COMMAND OPTION
  case $1:$2 in
    --set:--machine) echo --username --password --authtype ;;
    --test:--machine) echo --username --password ;;
    --set:--authtype | --set:--username | --set:--password | --test:--username | --test:--password) echo --machine ;;
    --credential:*) echo --username --password ;;
  esac
}

# Takes note of one word in command, given (the options so far) and pending (an option that waits for its argument).
_ferrogate_read() { # WORD
  local word=$1 options=() i
  if [[ -n $pending ]]; then
    pending=
    return
  fi
  case $word in
    --*=*) given+=("${word%%=*}") && return ;;
    --*) options=("$word") ;;
    -*) for ((i = 1; i < ${#word}; i++)); do options+=("$(_ferrogate_long "${word:i:1}")"); done ;;
  esac
  for ((i = 0; i < ${#options[@]}; i++)); do
    if [[ -z $command ]]; then
      command=${options[i]}
      continue
    fi
    given+=("${options[i]}")
    case ${options[i]} in
      --username | --password | --server | --authreq | --authtype | --opx)
        # The rest of a word of letters is the argument.
        ((i + 1 < ${#options[@]})) || pending=${options[i]}
        return
        ;;
    esac
  done
}

_ferrogate() {
  COMPREPLY=()
  local command= given=() pending= current=${COMP_WORDS[COMP_CWORD]} attached= offer= word i
  for ((i = 1; i < COMP_CWORD; i++)); do
    # "--authreq=true" comes as the three words "--authreq", "=" and "true", unless "=" breaks no words.
    [[ ${COMP_WORDS[i]} == "=" ]] || _ferrogate_read "${COMP_WORDS[i]}"
  done
  if [[ -n $command && $current == --*=* ]]; then
    pending=${current%%=*} attached=$pending=
    current=${current#*=}
  elif [[ $current == "=" ]]; then
    current=
  elif [[ ${COMP_WORDS[COMP_CWORD - 1]} == :* ]]; then
    return # ":" breaks words too: this is a port or the rest of a URL
  fi

  case $pending in
    --authreq) offer="true false" ;;
    --authtype) offer="basic digest ntlm negotiate anyauth" ;;
    ?*) return ;;
    *)
      offer=" $(_ferrogate_options "$command") "
      [[ -n $command ]] || offer=$_ferrogate_commands
      for word in "${given[@]}"; do
        for word in "$word" $(_ferrogate_excluded "$command" "$word"); do
          offer=${offer// $word / }
        done
      done
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -P "$attached" -W "$offer" -- "$current")
}

complete -F _ferrogate ferrogate
