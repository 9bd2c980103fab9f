#!/usr/bin/env bash
# The tool enclavectl, as its user meets it: what it prints, where, its exit codes, and what it leaves in the registry.
set -u
tool=$1/tools/enclavectl
scratch=$(mktemp -d)
leader=
trap '[ -z "$leader" ] || kill "$leader"; rm -rf "$scratch"' EXIT
export MERIDON_ROOT=$scratch/prefix
mkdir "$MERIDON_ROOT" "$scratch/root" "$scratch/own"
ln -s root "$scratch/link"
records=$MERIDON_ROOT/run/enclaves
failures=0

fail() {
	echo "FAILED: $*" >&2
	sed 's/^/    out: /' "$scratch/out" >&2
	sed 's/^/    err: /' "$scratch/err" >&2
	failures=$((failures + 1))
}
# expect CODE WORD...: runs the tool; its output stays in files.
expect() {
	local code=$1 got
	shift
	timeout 60 "$tool" "$@" >"$scratch/out" 2>"$scratch/err"
	got=$?
	[ "$got" -eq "$code" ] || fail "enclavectl $*: exit code $got, not $code"
}
prints() { [ "$(cat "$scratch/out")" = "$1" ] || fail "output isn't: $1"; }
complains() { grep -qF -- "$1" "$scratch/err" && [ ! -s "$scratch/out" ] || fail "no complaint of: $1"; }
json() { python3 -c "import json,sys; d = json.load(open('$scratch/$1')); assert $2, d" || fail "JSON: $2"; }

# Nothing there yet, and a dry run leaves it so.
expect 0 list
prints ''
expect 0 list --json
json out "d == {'enclaves': []}"
expect 0 add 5 --name web --root "$scratch/link" -n
grep -q 'would add enclave 5 (web)' "$scratch/err" || fail 'the dry run says nothing'
[ ! -e "$records" ] || fail 'the dry run wrote'

# Adding. The root is written without links, and the record is for all to read.
(umask 077 && "$tool" add 5 --name web --root "$scratch/link") || fail 'add'
[ "$(cat "$records/5")" = "name=web
root=$scratch/root
state=ready" ] || fail "record: $(cat "$records/5")"
[ "$(stat -c %a "$records/5")" = 644 ] || fail 'mode of the record'
sleep 1000 &
leader=$!
expect 0 add 10 --name db --root "$scratch/own" --leader $leader --json
json out "d['done'] and d['enclave']['state'] == 'running' and d['enclave']['leader'] == $leader and d['enclave']['leader_alive']"
expect 0 add 6 --name old --root / --state down

expect 5 add 5 --name other --root /
complains 'enclave 5 exists already'
expect 5 add 7 --name web --root / -n
complains "enclave 5 has the name 'web' already"
for words in '0 --name x --root /' '10000 --name x --root /' '05 --name x --root /' 'five --name x --root /' \
	'7 --name 7 --root /' '7 --name global --root /' '7 --name a/b --root /' "7 --name $(printf 'x%.0s' {1..64}) --root /" \
	"7 --name x --root $scratch/none" '7 --name x --root /etc/passwd' '7 --name x --root /sys/kernel/../../etc/passwd/x' \
	'7 --name x --root / --state up' '7 --name x --root / --leader 999999999' '7 --name x --root / --leader 0'; do
	# shellcheck disable=SC2086
	expect 6 add $words
	complains 'hint: '
done
for words in '' 'add' 'add 7' 'add 7 --name x' 'add 7 --name x --root / --leader one' 'show' 'remove' 'set-state web' \
	'list extra' 'frobnicate' 'set-state web down --leader 1 --no-leader'; do
	# shellcheck disable=SC2086
	expect 2 $words
	complains 'hint: '
done

# Listing, by number.
expect 0 list
prints "5	web	ready	-	$scratch/root
6	old	down	-	/
10	db	running	$leader	$scratch/own"
script -qec "$tool list" /dev/null | tr -d '\r' | grep -qE '^ID +NAME +STATE +LEADER +ROOT$' || fail 'no heading on a terminal'
expect 0 show db
prints "id: 10
name: db
state: running
root: $scratch/own
leader: $leader"
expect 0 show 5 --json
json out "d == {'id': 5, 'name': 'web', 'state': 'ready', 'root': '$scratch/root'}"
expect 4 show none --json
json err "d['error']['code'] == 4 and d['error']['name'] == 'not_found' and 'none' in d['error']['message'] and d['error']['hint']"
[ ! -s "$scratch/out" ] || fail 'an error on the standard output'
expect 2 --json show
json err "d['error']['code'] == 2"

# Changing.
expect 0 set-state db shutting_down -n
expect 0 show db
grep -q '^state: running$' "$scratch/out" || fail 'the dry run changed the state'
kill $leader
wait $leader 2>/dev/null
expect 0 show db --json
json out "not d['leader_alive']"
expect 0 show db
grep -q "^leader: $leader (gone)$" "$scratch/out" || fail 'the leader is not gone'
leader=
expect 0 set-state 10 down --no-leader
expect 0 set-state db running --leader $$
grep -qx "leader=$$" "$records/10" || fail 'the new leader'
expect 4 set-state none down
expect 6 set-state db Down

# What can't be understood is shown, and can be taken out by its number.
printf 'nonsense\n' >"$records/8"
expect 0 list --json
json out "[e['state'] for e in d['enclaves'] if e['id'] == 8] == ['invalid']"
expect 1 show 8
complains "can't be understood"
expect 5 add 8 --name new --root /
expect 0 remove 8
expect 0 remove old -n
expect 0 remove old
expect 4 remove old
complains "there is no enclave 'old'"
expect 0 list
[ "$(cut -f1 "$scratch/out" | tr '\n' ' ')" = '5 10 ' ] || fail 'what is left'
[ "$(ls -A "$records" | sort -n | tr '\n' ' ')" = '.lock 5 10 ' ] || fail "left in the registry: $(ls -A "$records")"

# The way out.
"$tool" list >/dev/full 2>"$scratch/err" && fail 'a full device went unseen'
grep -q "standard output" "$scratch/err" || fail 'no word of the full device'
expect 0 --help
for command in add list show remove set-state; do
	grep -q "^  $command " "$scratch/out" || fail "no help for $command"
	"$tool" $command --help | grep -q "enclavectl $command" || fail "$command --help has no example"
	grep -qE "^\.It Cm $command\$" "$2/docs/man/enclavectl.8" || fail "the manual page doesn't have $command"
done
[ "$(mandoc -T lint -W warning "$2/docs/man/enclavectl.8" 2>&1)" = '' ] || fail 'the manual page has faults'
if [ "$(id -u)" -eq 0 ]; then
	chmod 755 "$scratch"
	cp "$tool" "$1/platform/libmeridon.so.1" "$scratch" # where another user can start it
	LD_LIBRARY_PATH=$scratch setpriv --reuid 1000 --clear-groups "$scratch/enclavectl" remove web \
		>"$scratch/out" 2>"$scratch/err"
	[ $? -eq 3 ] || fail 'another user: not exit code 3'
	complains 'only root'
fi

[ "$failures" -eq 0 ]
