#!/bin/bash
# The exported surface: headers, version scripts and built libraries name the same things; libostrel needs no library
# beyond its own; every public header stands alone, as C11 and as C++20. usage: exports_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "exports_test: $*" >&2; failures=$((failures + 1)); }

includes=(-I"$source/live" -I"$source/common" -I"$source/platform/include")

# Names of functions and variables that a header declares. The compiler lists the functions, so that no text that looks
# like a declaration counts as one.
declared_in() {
	for header in "$@"; do
		gcc -std=c11 -x c -fsyntax-only "${includes[@]}" -aux-info "$work/aux" "$header"
		grep -F "/* $header:" "$work/aux" | sed -E 's@^/\*[^*]*\*/ @@; s@ \(.*@@; s@.*[ *]@@' || true
		sed -nE 's@^extern [^(]*[ *]([a-z_0-9]+);.*@\1@p' "$header"
	done | sort -u
}

scripted_in() { sed -n '/global:/,/local:/p' "$1" | sed -nE 's@^[[:space:]]+([A-Za-z_0-9]+);.*@\1@p' | sort; }

# Every dynamic symbol that is defined, but for the version node itself.
exported_by() { nm -D --defined-only --with-symbol-versions "$1" | awk '$2 != "A" { print $3 }' | sort; }

compare() { # what-one what-other file file
	if ! diff "$3" "$4" >"$work/diff"; then
		fail "$1 (<) and $2 (>) differ:"
		grep '^[<>]' "$work/diff" >&2
	fi
}

check_library() { # library version-script node headers...
	local library=$1 script=$2 node=$3
	shift 3
	declared_in "$@" >"$work/declared"
	scripted_in "$script" >"$work/scripted"
	exported_by "$library" >"$work/exported"
	[ -s "$work/declared" ] && [ -s "$work/exported" ] || fail "no names found for $library"
	sed "s/\$/@@$node/" "$work/scripted" >"$work/versioned"
	if [ "$node" = MERIDON_1 ]; then # each has a second name, for libostrel
		sed 's/.*/__wrap_&@@MERIDON_PRIVATE/' "$work/scripted" >>"$work/versioned"
		sort -o "$work/versioned" "$work/versioned"
	fi
	compare "the headers" "$script" "$work/declared" "$work/scripted"
	compare "$script" "$library" "$work/versioned" "$work/exported"
}

check_library "$build/common/libostrel.so.1" "$source/common/libostrel.map" OSTREL_1 "$source/common/libostrel.h"
check_library "$build/live/libostrelx.so.1" "$source/live/libostrelx.map" OSTRELX_1 "$source/live/libostrelx.h"
check_library "$build/platform/libmeridon.so.1" "$source/platform/libmeridon.map" MERIDON_1 \
	"$source"/platform/include/meridon/*.h

allowed='libmeridon\.so\.1|libc\.so\.6|libm\.so\.6|libstdc\+\+\.so\.6|libgcc_s\.so\.1|ld-linux[^ ]*'
if grep -q '^OSTREL_SANITIZE:STRING=.' "$build/CMakeCache.txt"; then
	allowed="$allowed|lib(a|t|ub|l)san\.so\.[0-9]+|libpthread.*|libdl.*|librt.*|libresolv.*"
fi
if readelf -d "$build/common/libostrel.so.1" | grep NEEDED | grep -vE "\[($allowed)\]"; then
	fail "libostrel.so.1 needs the libraries above"
fi

strict=(-Wall -Wextra -pedantic -Werror -fsyntax-only)
compilers=0
for pair in "gcc g++" "clang-14 clang++-14"; do
	read -r cc cxx <<<"$pair"
	command -v "$cc" "$cxx" >/dev/null || continue
	compilers=$((compilers + 1))
	for header in libostrel.h libostrelx.h "$source"/platform/include/meridon/*.h; do
		name=${header#"$source"/platform/include/}
		# Twice, for its guard; and something behind it, so that the unit isn't empty.
		printf '#include <%s>\n#include <%s>\nextern int end_of_unit;\n' "$name" "$name" >"$work/unit"
		"$cc" -x c -std=c11 "${strict[@]}" "${includes[@]}" "$work/unit" || fail "$cc refuses $name"
		"$cxx" -x c++ -std=c++20 "${strict[@]}" "${includes[@]}" "$work/unit" || fail "$cxx refuses $name"
	done
done
[ "$compilers" -gt 0 ] || fail "no compiler"

[ "$failures" -eq 0 ]
