# The names that libtessera.so promises, one a line, as exported-symbols.txt lists them: what it
# exports, less what comes and goes: the private steps of its classes, instances of the standard
# library's templates, and the tables of the interfaces, which optimised code has no use for.
#
#   names.sh LIBRARY NM HEADERS
set -eu

private_steps() {
  awk '/^class TESSERA_API/ { class = $3 }
       /^ private:$/ { inside = 1; next }
       /^};/ { inside = 0 }
       inside && !/friend|using|enum/ && match($0, /[A-Za-z]+\(/) {
         print class "::" substr($0, RSTART, RLENGTH - 1)
       }' "$1"/*.h | LC_ALL=C sort -u
}

steps=$(private_steps "$3" | sed 's/.*/^&(/')
"$2" -DC --defined-only "$1" | cut -d' ' -f3- | grep -v -e '\<std::' -e '^__' -e '^vtable for I' -e "$steps" | LC_ALL=C sort -u
