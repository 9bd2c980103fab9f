#!/bin/bash
# The manual pages of trace points and audit records against what the library really has and writes.
# usage: manual_pages_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 man=$2/docs/man
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "manual_pages_test: $*" >&2; exit 1; }

for page in "$man"/*.[37]; do
	faults=$(mandoc -T lint -W warning "$page" 2>&1) || true
	[ -z "$faults" ] || fail "$faults"
done

# Each trace point of the library, and how many arguments it has.
readelf -nW "$build/common/libostrel.so.1" |
	awk '/Provider: / { ours = $NF == "ostrel" } ours && /Name: / { name = $2 } ours && /Arguments: / { print name, NF - 1 }' |
	sed 's/__/-/g' | sort -u >"$work/has"
awk '/^\.It Li / { name = $3; getline; print name, split($0, words, ",") }' "$man/ostrel-tracing.7" | sort >"$work/told"
[ "$(wc -l <"$work/has")" = 8 ] || fail "the library has other trace points: $(cat "$work/has")"
diff "$work/has" "$work/told" || fail "the library's trace points (<) aren't those of the page (>)"

# The fields of a record, from the place that writes them.
sed -nE 's/^\ttext\.put\w*\("(\w+)".*/\1/p' "$2/platform/trail/trail.cc" >"$work/has"
sed -nE '/^\.It Li [a-z_]+ Ta/s/\.It Li (\w+) .*/\1/p' "$man/ostrel-audit.7" | grep -vxE 'exe|res' >"$work/told"
[ -s "$work/has" ] || fail "no fields found"
diff "$work/has" "$work/told" || fail "the fields of a record (<) aren't those of the page (>)"
