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

void trapped(const char *name)
{
	fprintf(stderr, "the library called the program's own %s()\n", name);
	_exit(9);
}

static attrlist_t *id(void)
{
	attrlist_t *made = NULL;
	if (ostrel_idlist_init(&made, NULL) != OSTREL_SUCCESS || ostrel_idlist_add(made, "a", "1") != OSTREL_SUCCESS)
		exit(2);
	return made;
}

static attrlist_t *properties(void)
{
	attrlist_t *made = NULL;
	if (ostrel_idlist_init(&made, NULL) != OSTREL_SUCCESS || ostrel_atl_add_one_string(made, "p", "v") != 0)
		exit(3);
	return made;
}

static int see(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *seen)
{
	(void) db, (void) idl, (void) props, (void) flags;
	++*(int *) seen;
	return 0;
}

static void use(ostrel_db_t db)
{
	attrlist_t *props = NULL;
	int seen = 0;
	if (ostrel_db_write(db, id(), 0, properties()) != OSTREL_SUCCESS ||
	    ostrel_db_read(db, id(), 0, &props) != OSTREL_SUCCESS ||
	    ostrel_db_walk(db, NULL, 0, see, NULL, &seen, NULL) != OSTREL_SUCCESS || seen != 1)
		exit(4);
}

int main(int argc, char **argv)
{
	(void) argc;
	const char *place = argv[1];
	char path[256], hatch[256];
	ostrel_db_t db, client;
	int fd;
	ostrel_log_open("msglog");
	ostrel_log(7, "%s", place);
	snprintf(path, sizeof(path), "%s/db", place);
	snprintf(hatch, sizeof(hatch), "%s/hatches/hatch", place);
	if (ostrel_db_open(path, 0, ostrel_files_db_cmds, 0, &db) != OSTREL_SUCCESS)
		exit(6);
	use(db);
	if (geteuid() == 0) {
		if (ostrel_hatchserver_create(hatch, "", "", db, &fd) != OSTREL_SUCCESS ||
		    ostrel_db_open(hatch, 0, ostrel_hatches_db_cmds, 0, &client) != OSTREL_SUCCESS)
			exit(7);
		use(client);
		ostrel_db_close(client);
		ostrel_hatchserver_destroy(hatch, fd);
	}
	ostrel_db_close(db);
	if (ostrel_db_open(path, 5, ostrel_files_db_cmds, 0, &db) != OSTREL_SUCCESS ||
	    ostrel_db_write(db, id(), 0, properties()) == OSTREL_SUCCESS ||
	    ostrel_db_open("none", 0, ostrel_cairn_db_cmds, 0, &client) == OSTREL_SUCCESS)
		exit(8);
	ostrel_make_files_obsolete(place, "^db$");
	snprintf(path, sizeof(path), "%s/db.obsolete", place);
	return access(path, F_OK) == 0 ? 0 : 10;
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
		MERIDON_ROOT=$program.dir LD_LIBRARY_PATH=$build/common:$build/platform "$program" "$program.dir" || {
			echo "names_test: ld.$linker $exported: $?" >&2
			failed=1
		}
		tried=$((tried + 1))
	done
done
[ "$tried" -gt 0 ] && [ "$failed" -eq 0 ]
