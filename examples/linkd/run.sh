# Runs the example on a database of its own, twice, and compares what it prints and what it stores.
set -eu
program=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$program" "$work/links.db" > "$work/output"
diff -u "$source/expected_output" "$work/output"
diff -u "$source/expected_database" "$work/links.db"
# What is there already is replaced by the same.
"$program" "$work/links.db" > "$work/output"
diff -u "$source/expected_output" "$work/output"
diff -u "$source/expected_database" "$work/links.db"
# A database that can't be written is reported.
if "$program" "$work/missing/links.db" > /dev/null 2> "$work/errors"; then
	echo "a missing directory went unnoticed" >&2
	exit 1
fi
grep -q "linkd: write net0: object not found" "$work/errors"
