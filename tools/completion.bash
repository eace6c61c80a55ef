# Completion of a tool's options, as its own help names them, and of file names.
_talvo_tool() {
  local word=${COMP_WORDS[COMP_CWORD]}
  case $word in
    -*) mapfile -t COMPREPLY < <(compgen -W "$("$1" --help 2>&1 | grep -oE -- '--[a-z][a-z-]*' | sort -u)" -- "$word") ;;
    *) mapfile -t COMPREPLY < <(compgen -f -- "${word##*=}") ;;
  esac
}
complete -o filenames -F _talvo_tool run_package upgrade_model convert_onnx convert_package
