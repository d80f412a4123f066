# What the loader sees of libtessera.so.
#
#   check-shared-object.sh exports LIBRARY NM LIST
#   check-shared-object.sh dynamic LIBRARY READELF
set -eu
check=$1
library=$2
tool=$3
failures=0
here=$(dirname "$0")
scratch=$(mktemp)
trap 'rm -f "$scratch"' EXIT

expect() {
  what=$1
  shift
  "$@" || {
    echo "FAILED: $what" >&2
    failures=$((failures + 1))
  }
}

section() { "$tool" -dW "$library" | sed -n "s/.*($1) .*\[\(.*\)\]/\1/p"; }
needs_nothing_else() {
  ! section NEEDED | grep -vxE 'lib(tessera_platform\.so\.1|stdc\+\+\.so\.6|m\.so\.6|gcc_s\.so\.1|c\.so\.6)|ld-linux.*'
}
# An application that drives OpenMAX IL or MMAL itself has functions of these names, too.
calls_its_own() {
  { "$tool" -W --dyn-syms "$library" && "$tool" -rW "$library"; } |
    awk '$4 == "FUNC" && $7 != "UND" { own[$8]; ++functions }
         $3 ~ /^R_/ && $5 in own { print; ++left } END { exit left || functions < 100 }'
}
lacks() { ! "$tool" "$1" "$library" | grep "$2"; }

case $check in
  exports)
    sh "$here/names.sh" "$library" "$tool" >"$scratch"
    expect "other names are exported than $4 lists (tests/abi/names.sh makes it anew)" \
      diff -u "$4" "$scratch"
    ;;
  dynamic)
    expect "its name is not libtessera.so" test "$(section SONAME)" = libtessera.so
    case "$(section RUNPATH)$(section RPATH)" in
      /opt/vc/lib:*) ;;
      *) expect "the run path does not start with /opt/vc/lib" false ;;
    esac
    expect "it needs the libraries above" needs_nothing_else
    expect "the loader may bind its calls to an application's functions" calls_its_own
    expect "it has text relocations" lacks -dW TEXTREL
    expect "its stack is executable" lacks -lW 'GNU_STACK.*E'
    expect "it does not say what stack it wants" sh -c '"$0" -lW "$1" | grep -q GNU_STACK' "$tool" "$library"
    ;;
esac
exit $failures
