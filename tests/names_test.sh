#!/bin/bash
# A program may define functions named as the platform's operations are; the libraries call their own all the same,
# whichever linker made the program and whatever it exports. usage: names_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

{
	echo 'void trapped(const char *name);'
	sed -nE 's@^\t\t([a-z_0-9]+);@void \1(void) { trapped("\1"); }@p' "$source/platform/libmeridon.map"
} >"$work/traps.c"

cat >"$work/program.c" <<'END'
#include <libostrel.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#define MUST(what) ((what) ? (void) 0 : (fprintf(stderr, "not so: %s\n", #what), exit(8)))

void trapped(const char *name)
{
	fprintf(stderr, "a library called the program's own %s()\n", name);
	_exit(9);
}

static int see(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *seen)
{
	(void) db, (void) idl, (void) props, (void) flags;
	++*(int *) seen;
	return 0;
}

static ostrel_error_t use(const char *name, ostrel_db_cmds_t cmds, enclaveid_t enclave, const char *hatch)
{
	attrlist_t *id, *props, *found;
	ostrel_db_t db;
	int fd, seen = 0;
	MUST(ostrel_idlist_init(&id, NULL) == OSTREL_SUCCESS && ostrel_idlist_init(&props, NULL) == OSTREL_SUCCESS);
	MUST(ostrel_idlist_add(id, "a", "1") == OSTREL_SUCCESS && ostrel_atl_add_one_string(props, "p", "v") == 0);
	if (ostrel_db_open(name, enclave, cmds, 0, &db) != OSTREL_SUCCESS)
		return OSTREL_FAILURE;
	ostrel_error_t result = ostrel_db_write(db, id, 0, props);
	if (result == OSTREL_SUCCESS)
		MUST(ostrel_db_read(db, id, 0, &found) == OSTREL_SUCCESS &&
		     ostrel_db_walk(db, NULL, 0, see, NULL, &seen, NULL) == OSTREL_SUCCESS && seen == 1);
	if (hatch != NULL) {
		MUST(ostrel_hatchserver_create(hatch, "", "", db, &fd) == OSTREL_SUCCESS);
		MUST(use(hatch, ostrel_hatches_db_cmds, 0, NULL) == OSTREL_SUCCESS);
		ostrel_hatchserver_destroy(hatch, fd);
	}
	ostrel_db_close(db);
	return result;
}

int main(int argc, char **argv)
{
	MUST(argc == 2 && chdir(argv[1]) == 0);
	ostrel_log_open("msglog");
	ostrel_log(7, "%s", "text");
	MUST(use("db", ostrel_files_db_cmds, 0, geteuid() == 0 ? "hatches/hatch" : NULL) == OSTREL_SUCCESS);
	MUST(use("db", ostrel_files_db_cmds, 5, NULL) != OSTREL_SUCCESS);
	MUST(use("none", ostrel_cairn_db_cmds, 0, NULL) != OSTREL_SUCCESS);
	ostrel_make_files_obsolete(".", "^db$");
	MUST(access("db.obsolete", F_OK) == 0);
	return 0;
}
END

sanitize=$(sed -n 's/^OSTREL_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt")
cc=$(sed -n 's/^CMAKE_C_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
tried=0 failed=0
for linker in bfd gold lld; do
	command -v "ld.$linker" >/dev/null || continue
	for exported in -rdynamic ""; do
		program=$work/$linker$exported
		"$cc" ${sanitize:+-fsanitize=$sanitize} -Wall -Wextra -Werror -fno-builtin -fuse-ld="$linker" $exported -I"$source/common" \
			-I"$source/platform/include" "$work/program.c" "$work/traps.c" -o "$program" \
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
