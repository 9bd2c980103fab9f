#!/usr/bin/env bash
# The demo, as it is, with loopback alone, and with a step that goes wrong.
set -euo pipefail
build=$1 source=$2

if [ "$(id -u)" -ne 0 ]; then
	echo "the demo needs root"
	exit 77
fi
scratch=$(mktemp -d)
chmod 755 "$scratch" # the demo has users besides root
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch/tmp
mkdir "$TMPDIR"

fail() {
	cat "$scratch/out" >&2
	echo "demo_test: $*" >&2
	exit 1
}

# demo COMMAND...: runs the demo by that command, and demands that it tells of its end and leaves nothing.
demo() {
	"$@" "$source/scripts/demo" --built "$build" >"$scratch/out" 2>&1 </dev/null || fail "'$*' ended with $?"
	grep -q '^All 11 steps went well.$' "$scratch/out" || fail "'$*' didn't come to its end"
	[ -z "$(ls "$TMPDIR")" ] || fail "'$*' left something behind"
}

demo bash
grep -q 'the mtu of the loopback is' "$scratch/out" || fail "it didn't check the loopback"

if unshare -nm true 2>/dev/null; then
	# Loopback alone, no route, and no resolver file: an empty directory of its own lies over /etc, but for services.
	cat >"$scratch/bare" <<'END'
set -e
keep=$(mktemp)
cp /etc/services "$keep"
cp /etc/passwd "$keep.passwd"
mount -t tmpfs t /etc
cp "$keep" /etc/services
cp "$keep.passwd" /etc/passwd
rm "$keep" "$keep.passwd"
exec bash "$@"
END
	demo unshare -nm bash "$scratch/bare"
	grep -q '1 objects of this machine: 1 written' "$scratch/out" || fail "there is more than the loopback"
else
	echo "no namespaces here: not tried with loopback alone"
fi

# A tool that lies is found out: here one that doesn't change what it is told to.
mkdir -p "$scratch/bad/tools" "$scratch/bad/examples/netimport"
ln -s "$build/tools/enclavectl" "$scratch/bad/tools/enclavectl"
ln -s "$build/examples/netimport/netimport" "$scratch/bad/examples/netimport/netimport"
printf '#!/bin/sh\n[ "$1" = set ] || exec %s "$@"\n' "$build/tools/ostrel" >"$scratch/bad/tools/ostrel"
chmod +x "$scratch/bad/tools/ostrel"
code=0
bash "$source/scripts/demo" --built "$scratch/bad" >"$scratch/out" 2>&1 </dev/null || code=$?
[ "$code" -eq 1 ] && grep -q 'step 3 went wrong: the new mtu' "$scratch/out" || fail "a step that did nothing wasn't seen"
[ -z "$(ls "$TMPDIR")" ] || fail "the failed demo left something behind"
