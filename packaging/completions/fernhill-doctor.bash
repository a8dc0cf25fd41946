# Completion of fernhill-doctor for bash. Made by scripts/make-manuals.
_fernhill_doctor() {
  local current=${COMP_WORDS[COMP_CWORD]}
  case "${COMP_WORDS[COMP_CWORD - 1]}" in
    --pid) COMPREPLY=($(compgen -W "$(pgrep -x fernhill)" -- "$current")) ;;
    --root) COMPREPLY=($(compgen -d -- "$current")) ;;
    *) COMPREPLY=($(compgen -W '--json --pid --root --help' -- "$current")) ;;
  esac
}
complete -o filenames -F _fernhill_doctor fernhill-doctor
