# The names that libtessera.so promises, one a line: what it exports, less the private steps of its
# classes and instances of the standard library's templates, which come and go.
#
#   names.sh exported LIBRARY NM HEADERS
#   names.sh suppressions HEADERS      the private steps, for libabigail to leave out
set -eu

private_steps() {
  awk '/^class TESSERA_API/ { class = $3 }
       /^ private:$/ { inside = 1; next }
       /^};/ { inside = 0 }
       inside && !/friend|using|enum/ && match($0, /[A-Za-z]+\(/) {
         print class "::" substr($0, RSTART, RLENGTH - 1)
       }' "$1"/*.h | LC_ALL=C sort -u
}

case $1 in
  exported)
    steps=$(private_steps "$4" | sed 's/.*/^&(/')
    "$3" -DC --defined-only "$2" | cut -d' ' -f3- | grep -v -e '\<std::' -e '^__' -e "$steps" | LC_ALL=C sort -u
    ;;
  suppressions)
    printf '[suppress_function]\nname_regexp = ^(%s)$\ndrop = yes\n' "$(private_steps "$2" | paste -sd'|')"
    ;;
esac
