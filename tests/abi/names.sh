# The names that libtessera.so promises, one a line: what it exports, less instances of the standard
# library's templates, and the tables of the interfaces, which come and go.
#
#   names.sh LIBRARY NM
set -eu
"$2" -DC --defined-only "$1" | cut -d' ' -f3- | grep -v -e '\<std::' -e '^__' -e '^vtable for I' | LC_ALL=C sort -u
