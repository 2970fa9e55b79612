# Completion of mqcat for bash.

_mqcat_complete() { mapfile -t COMPREPLY < <(compgen "$@" -- "${COMP_WORDS[COMP_CWORD]}"); }

_mqcat() {
  local command=${COMP_WORDS[1]:-} word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  if [ "$COMP_CWORD" = 1 ]; then
    _mqcat_complete -W "listen send ping decode keys explain --help --version"
    return
  fi
  case $before in
    --format)
      case $command in
        explain) _mqcat_complete -W "text json markdown" ;;
        decode) _mqcat_complete -W "text json" ;;
        *) _mqcat_complete -W "text json hex raw quiet" ;;
      esac
      return
      ;;
    --input) _mqcat_complete -W "auto raw hex pcap" && return ;;
    --interface) _mqcat_complete -W "any $(ls /sys/class/net)" && return ;;
    --ring | --sign | --file) _mqcat_complete -f && return ;;
  esac
  case $command in
    listen)
      local words="--format --echo --udp --ring --sign --user --count --max-clients --max-per-address --max-message
        --max-waiting --midway --idle --answer-rate --trace --help"
      ;;
    send)
      local words="--command --param --file --json --stdin --repeat --interval --reply --timeout --sign --ring --user
        --udp --format --quiet --help"
      ;;
    ping) local words="--count --interval --size --deadline --timeout --quiet --json --udp --help" ;;
    decode) local words="--input --interface --filter --count --format --full --help" ;;
    keys)
      if [ "$COMP_CWORD" = 2 ]; then
        _mqcat_complete -W "new public add list --help"
        return
      fi
      local words="--until --revoke --replace --public --secret --help"
      ;;
    explain)
      local words="--all --format --help"
      [[ $word == -* ]] || words=$(mqcat explain --all --format json 2>/dev/null | sed 's/.*"name":"\([^"]*\)".*/\1/')
      ;;
    *) return ;;
  esac
  if [[ $word != -* && ($command == decode || $command == keys) ]]; then
    _mqcat_complete -f
  else
    _mqcat_complete -W "$words"
  fi
}

complete -o filenames -F _mqcat mqcat
