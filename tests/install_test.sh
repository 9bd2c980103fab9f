#!/bin/bash
# Installs the tree, moves it, and builds and runs a stranger's program against it: found by pkg-config, as C11 and as
# C++20, and by find_package(). usage: install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "install_test: $*" >&2; exit 1; }
from_cache() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }

DESTDIR='' cmake --install "$build" --prefix "$work/first" >"$work/log" || { cat "$work/log"; fail "no installation"; }
mv "$work/first" "$work/tree" # whatever holds the old place is found out now
tree=$work/tree

for file in include/libostrel.h include/libostrelx.h lib/libostrelx.so.1 lib/pkgconfig/libostrelx.pc include/meridon/attrlist.h lib/libostrel.so.1 lib/libmeridon.so.1 \
	include/meridon/rpy.h lib/cairn/bin/cairn.configd \
	share/man/man7/ostrel-audit.7 share/ostrel/tracing/slow.bt \
	lib/pkgconfig/libostrel.pc lib/pkgconfig/libmeridon.pc lib/cmake/ostrel/ostrelConfig.cmake; do
	[ -e "$tree/$file" ] || fail "$file isn't installed"
done
[ -x "$tree/share/ostrel/tracing/who.bt" ] || fail "the programs for tracing can't be run"
for where in "$source" "$build" "$work/first"; do
	if grep -rlF "$where" "$tree/lib/pkgconfig" "$tree/lib/cmake" "$tree/include"; then
		fail "the files above name $where"
	fi
done
if readelf -d "$tree"/lib/lib*.so.1 | grep -E 'R(UN)?PATH' | grep -v '\[\$ORIGIN'; then
	fail "a library looks for others outside its own tree"
fi

# The libraries may be instrumented; then so is the program.
sanitize=$(from_cache OSTREL_SANITIZE)
instrument=${sanitize:+-fsanitize=$sanitize}
cc=$(from_cache CMAKE_C_COMPILER) cxx=$(from_cache CMAKE_CXX_COMPILER)
export PKG_CONFIG_PATH=$tree/lib/pkgconfig
flags=$(pkg-config --cflags --libs libostrel) || fail "pkg-config doesn't find libostrel"
[ "$(pkg-config --modversion libostrel)" = "$(from_cache CMAKE_PROJECT_VERSION)" ] || fail "the version differs"

strict="-Wall -Wextra -pedantic -Werror"
# Word splitting is meant: these are lists of options.
# shellcheck disable=SC2086
"$cc" -std=c11 $strict $instrument "$source/tests/install/foreigner.c" -o "$work/c" $flags -Wl,-rpath,"$tree/lib"
# shellcheck disable=SC2086
"$cxx" -x c++ -std=c++20 $strict $instrument "$source/tests/install/foreigner.c" -x none -o "$work/cxx" $flags \
	-Wl,-rpath,"$tree/lib"
env -u CMAKE_C_COMPILER_LAUNCHER cmake -S "$source/tests/install" -B "$work/package" -DCMAKE_C_COMPILER="$cc" \
	-DCMAKE_C_FLAGS="$instrument" -DCMAKE_PREFIX_PATH="$tree" >"$work/log" &&
	cmake --build "$work/package" >>"$work/log" || { cat "$work/log"; fail "find_package() doesn't lead to a program"; }

for program in c cxx package/foreigner; do
	mkdir "$work/$program.dir"
	MERIDON_ROOT=$work/$program.dir "$work/$program" "$work/$program.dir" || fail "$program failed"
	[ "$(wc -l <"$work/$program.dir/db.obsolete")" = 2 ] || fail "$program left another database"
done

# The daemon finds its library beside itself.
"$tree/lib/cairn/bin/cairn.configd" -d "$work/hatch" -r "$work/repository.db" || fail "the repository daemon doesn't start"
daemon=$(pgrep -f "cairn.configd -d $work/hatch")
kill "$daemon"
