#!/bin/bash
# A program may define functions named as the platform's operations are; the libraries call their own all the same,
# whichever linker made the program and whatever it exports. usage: names_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

{
	printf '#include <stdio.h>\n#include <unistd.h>\nvoid trapped(const char *name);\nvoid trapped(const char *name)\n'
	echo "{ fprintf(stderr, \"a library called the program's own %s()\\n\", name); _exit(9); }"
	sed -nE 's@^\t\t([a-z_0-9]+);@void \1(void) { trapped("\1"); }@p' "$source/platform/libmeridon.map"
} >"$work/traps.c"

sanitize=$(sed -n 's/^OSTREL_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt")
cc=$(sed -n 's/^CMAKE_C_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
tried=0 failed=0
for linker in bfd gold lld; do
	command -v "ld.$linker" >/dev/null || continue
	for exported in -rdynamic ""; do
		program=$work/$linker$exported
		"$cc" ${sanitize:+-fsanitize=$sanitize} -Wall -Wextra -Werror -fno-builtin -fuse-ld="$linker" $exported \
			-DNO_PLATFORM_CALLS -I"$source/common" -I"$source/platform/include" \
			"$source/tests/install/foreigner.c" "$work/traps.c" -o "$program" \
			-L"$build/common" -lostrel -L"$build/platform" -lmeridon
		[ -z "$exported" ] || nm -D --defined-only "$program" | grep ' T regex$' >"$work/set" || { echo "no trap is set" >&2; exit 1; }
		mkdir "$program.dir"
		# Its lists stay: the release of lists is the program's own there.
		ASAN_OPTIONS=detect_leaks=0 MERIDON_ROOT=$program.dir LD_LIBRARY_PATH=$build/common:$build/platform "$program" "$program.dir" || {
			echo "names_test: ld.$linker $exported: $?" >&2
			failed=1
		}
		tried=$((tried + 1))
	done
done
[ "$tried" -gt 0 ] && [ "$failed" -eq 0 ]
