#!/usr/bin/env bash
# Installs the build into a temporary prefix and uses it as a data-plane
# program and an operator would, touching nothing of the build tree:
#   1. every installed header compiles on its own (C11 at the C edge, C++20
#      for the header-only C++ ones), with -I<prefix>/include only;
#   2. consumer/ is built with find_package(pmdb) and again with pkg-config,
#      and each build runs in a namespace of its own: one event through
#      dpa_pmdb_oper, the IFH entry read back through the reader library;
#   3. the installed pmdbctl, from another process, shows that entry, and
#      its man page has a section for every command its help lists.
# Usage: install_test.sh BUILD_DIR CC CXX GENERATOR
set -euo pipefail
build=$1 cc=$2 cxx=$3 generator=$4
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/pmdb_install.XXXXXX")
prefix=$work/prefix
namespaces=()
cleanup() {
  for ns in "${namespaces[@]}"; do rm -f /dev/shm/"$ns".*; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install failed"; }

# 1. headers
cxx_only="pmdb_fields.h pmdb_trace_points.h"
for h in "$prefix"/include/pmdb/*.h; do
  name=$(basename "$h")
  echo "#include <pmdb/$name>" | "$cxx" -std=c++20 -Wall -Wextra -Werror -fsyntax-only \
    -I"$prefix/include" -x c++ - || fail "$name does not compile on its own as C++"
  case " $cxx_only " in *" $name "*) continue ;; esac
  echo "#include <pmdb/$name>" | "$cc" -std=c11 -pedantic -Wall -Wextra -Werror -fsyntax-only \
    -I"$prefix/include" -x c - || fail "$name does not compile on its own as C11"
done

# 2. consumers, each run with a clean environment apart from its namespace
run_consumer() {  # label executable
  local ns=pmdbinst$$_$1
  namespaces+=("$ns")
  # Not `ldd | grep -q`: grep ends at its first match, ldd may then die of
  # SIGPIPE, and pipefail would report that as a missing match.
  ldd "$2" >"$work/ldd.out" || fail "ldd $2 failed"
  grep -q "libpmdb.so.0 => $prefix/" "$work/ldd.out" || fail "$1 consumer does not load libpmdb from the prefix"
  env -i PATH="$PATH" PMDB_NS="$ns" PMDB_MAX_ENTRIES=64 "$2" || fail "$1 consumer failed"
  env -i PATH="$PATH" PMDB_MAX_ENTRIES=64 "$prefix/bin/pmdbctl" --ns "$ns" show 0x5001 \
    >"$work/show.out" || fail "installed pmdbctl show failed in $ns"
  grep -q "^ifh 0x00005001$" "$work/show.out" || fail "installed pmdbctl does not show ifh 0x5001"
}

cmake -S "$here/consumer" -B "$work/fp" -G "$generator" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_PREFIX_PATH="$prefix" >"$work/fp.log" || { cat "$work/fp.log"; fail "find_package(pmdb) configure failed"; }
cmake --build "$work/fp" >>"$work/fp.log" || { cat "$work/fp.log"; fail "find_package(pmdb) build failed"; }
run_consumer find_package "$work/fp/consumer"

pcdir=$(dirname "$(find "$prefix" -name pmdb.pc)")
flags=$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --cflags --libs pmdb pmdb-reader) || fail "pkg-config pmdb pmdb-reader failed"
libdir=$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --variable=libdir pmdb)
# shellcheck disable=SC2086  # flags are words
"$cc" -std=c11 -pedantic -Wall -Wextra -Werror "$here/consumer/consumer.c" -o "$work/pc_consumer" \
  $flags -Wl,-rpath,"$libdir" || fail "pkg-config build failed"
run_consumer pkg_config "$work/pc_consumer"

# 3. the man page against the help
commands=$("$prefix/bin/pmdbctl" --help | sed -n '/^Subcommands:/,$p' | awk 'NR > 1 && NF { print $1 }')
[ -n "$commands" ] || fail "pmdbctl --help lists no commands"
for c in $commands; do
  grep -q "^\.SS $c\\b" "$prefix/share/man/man1/pmdbctl.1" || fail "man page has no section for '$c'"
done
echo "install test: headers, find_package and pkg-config consumers, pmdbctl and man page OK"
