# Completion of fernhill-lab for bash. Made by scripts/make-manuals.
_fernhill_lab() {
  local current=${COMP_WORDS[COMP_CWORD]} words='' files=no
  if [ "$COMP_CWORD" -eq 1 ]; then
    COMPREPLY=($(compgen -W '--help replay explain compare slots check log doctor divert' -- "$current"))
    return
  fi
  case "${COMP_WORDS[1]}:${COMP_WORDS[COMP_CWORD - 1]}" in
    replay:--bof) words="on off" ;;
    replay:--policy) files=yes ;;
    replay:--json) files=yes ;;
    replay:--asked) files=yes ;;
    replay:--report) files=yes ;;
    replay:--csv) files=yes ;;
    replay:--program) files=yes ;;
    replay:--root) files=yes ;;
    replay:*) words="--help --policy --json --asked --report --csv --rows --bof --program --root" files=yes ;;
    explain:--bof) words="on off" ;;
    explain:--policy) files=yes ;;
    explain:--root) files=yes ;;
    explain:*) words="--help --packet --policy --json --bof --root" files=yes ;;
    compare:--bof) words="on off" ;;
    compare:--policy) files=yes ;;
    compare:--csv) files=yes ;;
    compare:*) words="--help --policy --json --csv --rows --bof" files=yes ;;
    slots:*) words="--help --questions --operations" files=yes ;;
    check:--csv) files=yes ;;
    check:*) words="--help --json --csv" files=yes ;;
    log:--csv) files=yes ;;
    log:*) words="--help --containing --request --since-start --explain --hangs --json --csv" files=yes ;;
    doctor:--csv) files=yes ;;
    doctor:*) words="--help --json --csv" files=yes ;;
    divert:--bof) words="on off" ;;
    divert:--through) words="daemon queue nothing" ;;
    divert:--policy) files=yes ;;
    divert:--program) files=yes ;;
    divert:--table) files=yes ;;
    divert:--json) files=yes ;;
    divert:--csv) files=yes ;;
    divert:--record) files=yes ;;
    divert:--watch) files=yes ;;
    divert:--root) files=yes ;;
    divert:*) words="--help --policy --bof --no-agent --restart-agent --program --table --json --csv --record --watch --through --log --root" files=yes ;;
  esac
  COMPREPLY=($(compgen -W "$words" -- "$current"))
  [ $files = no ] || COMPREPLY+=($(compgen -f -- "$current"))
}
complete -o filenames -F _fernhill_lab fernhill-lab
