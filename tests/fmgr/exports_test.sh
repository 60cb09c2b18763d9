#!/usr/bin/env bash
# What the built library shows and needs. usage: exports_test.sh LIBRARY
# Catches an internal helper or a standard-library template that leaves the library, a missing version in the
# soname, and a new dependency. A class that does not leave it would keep the tests from linking.
set -u
library=$1
failures=0
fault() {
  printf 'FAIL: %s\n' "$*"
  failures=$((failures + 1))
}

classes='FmgrRepository|FmgrPreAllocRepository|FmgrFreeRepository|FmgrErrorRepository|FmgrDataRepository'
classes="$classes|FmgrRepositoryGroup|FmgrFileManager"
symbols=$(nm -D --defined-only -C "$library" | sed -E 's/^[0-9a-f]+ . //; s/@@?FILEMANAGER_1$//') || exit 1

member="($classes)::~?[A-Za-z]+(\[abi:cxx11\])?\(.*\)( const)?"
table="(vtable|typeinfo|typeinfo name) for ($classes)"
strangers=$(grep -vxE "$member|$table|FmgrFileManager::mpFileManager|FILEMANAGER_1" <<<"$symbols")
strangers+=$(grep -E '::operator|\{lambda|fmgr::' <<<"$symbols")
[ -z "$strangers" ] || fault "exported: $strangers"

dynamic=$(readelf -d "$library")
soname=$(sed -nE 's/.*SONAME.*\[(.*)\]/\1/p' <<<"$dynamic")
[[ $soname =~ ^libfilemanager\.so\.[0-9]+$ ]] || fault "soname is '$soname'"
[ -e "$(dirname "$library")/$soname" ] || fault "$soname is not beside the library"
needed=$(sed -nE 's/.*NEEDED.*\[(.*)\]/\1/p' <<<"$dynamic" |
  grep -vE '^(libstdc\+\+|libgcc_s|libm|libc|ld-linux-.*|lib(a|ub|t)san)\.so\.[0-9]+$')
[ -z "$needed" ] || fault "needs: $needed"

printf '%d symbols, %d failures\n' "$(wc -l <<<"$symbols")" "$failures"
[ "$failures" -eq 0 ]
