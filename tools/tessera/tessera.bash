# bash completion for tessera(1)

_tessera() {
  local cur prev command="" word
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD - 1]}
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      jpeg-encode | jpeg-decode | h264-encode | h264-decode | info) command=$word; break ;;
    esac
  done

  local words=""
  case $prev in
    --format)
      [[ $command == h264-encode ]] && words="i420 yuyv" || words="yuyv rgb16 rgb24 rgb32" ;;
    --via) words="mmal omx" ;;
    --range) words="full limited" ;;
    --size) words="640x480 1280x720 1920x1080" ;;
    --rate) words="15 25 30 30000/1001 60" ;;
    --aspect) words="1/1 4/3" ;;
    --bitrate) words="500k 1M 2M 4M 8M" ;;
    *)
      if [[ -z $command ]]; then
        words="jpeg-encode jpeg-decode h264-encode h264-decode info --help --version"
      elif [[ $cur == -* && $prev != -o ]]; then
        words="--help"
        [[ $command != info ]] && words+=" --output --quiet --verbose"
        words+=" --json"
        case $command in
          jpeg-encode) words+=" --size --format --range --via" ;;
          jpeg-decode) words+=" --size --keep-going" ;;
          h264-encode) words+=" --size --format --range --rate --aspect --bitrate --via" ;;
          h264-decode) words+=" --low-delay" ;;
        esac
      fi
      ;;
  esac
  if [[ -n $words ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
  elif [[ -n $command && $command != info ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}

complete -F _tessera tessera
