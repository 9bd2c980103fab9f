/*
 * A stranger to this tree: knows nothing but the installed headers and libraries. Valid as C11 and as C++20. It uses every
 * back end that it can reach, and leaves db.obsolete, of two lines. usage: foreigner DIRECTORY   (an empty one)
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <libostrel.h>

#ifdef NO_PLATFORM_CALLS /* it defines functions of these names itself */
#define attrlist_free(list) ((void) (list))
#endif
#define MUST(what) ((what) ? (void) 0 : (fprintf(stderr, "%d: not so: %s\n", __LINE__, #what), exit(8)))
#define OK(call) MUST((call) == OSTREL_SUCCESS)

static attrlist_t *identifiers(const char *link, const char *zone)
{
	attrlist_t *idl = NULL;
	OK(ostrel_idlist_init(&idl, NULL));
	OK(ostrel_idlist_add(idl, "linkname", link));
	OK(ostrel_idlist_add(idl, "zone", zone));
	return idl;
}

static void write_link(ostrel_db_t db, const char *link, uint32_t mtu)
{
	attrlist_t *idl = identifiers(link, "global");
	attrlist_t *props = NULL;
	OK(ostrel_idlist_init(&props, NULL));
	MUST(ostrel_atl_add_one_uint32(props, "mtu", mtu) == 0);
	MUST(ostrel_atl_add_one_boolean(props, "on", B_TRUE) == 0);
	MUST(ostrel_atl_add_one_string(props, "alias", "a=b;c, d\\e") == 0);
	OK(ostrel_db_write(db, idl, 0, props));
	attrlist_free(props);
	attrlist_free(idl);
}

static void read_link(ostrel_db_t db, const char *link, uint32_t mtu)
{
	attrlist_t *idl = identifiers(link, "GLOBAL");
	attrlist_t *props = NULL;
	char text[OSTREL_IDSTR_SIZE];
	char wanted[OSTREL_IDSTR_SIZE];
	uint32_t found = 0;
	boolean_t on = B_FALSE;
	char *alias = NULL;

	OK(ostrel_db_read(db, idl, 0, &props));
	MUST(ostrel_atl_get_one_uint32(props, "mtu", &found) == 0 && found == mtu);
	MUST(ostrel_atl_get_one_boolean(props, "on", &on) == 0 && on == B_TRUE);
	MUST(ostrel_atl_get_one_string(props, "alias", &alias) == 0 && strcmp(alias, "a=b;c, d\\e") == 0);
	snprintf(wanted, sizeof(wanted), "linkname=%s;zone=global;", link);
	OK(ostrel_idlist2idstr(idl, text));
	MUST(strcmp(text, wanted) == 0);
	attrlist_free(props);
	attrlist_free(idl);
}

static int note_link(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *seen)
{
	char *link = NULL;
	(void) db, (void) props, (void) flags;
	OK(ostrel_idlist_get(idl, "linkname", &link));
	strcat(strcat((char *) seen, link), " ");
	return strcmp(link, "net1") == 0 ? 7 : 0;
}

/* `order` is that of a walk up to net1. */
static void use(const char *name, ostrel_db_cmds_t cmds, const char *order)
{
	ostrel_db_t db = NULL;
	attrlist_t *from = identifiers("net1", "global");
	attrlist_t *to = identifiers("net9", "global");
	char seen[100] = "";
	int halted = 0;

	OK(ostrel_db_open(name, 0, cmds, 0, &db));
	write_link(db, "net0", 1500);
	write_link(db, "net1", 9000);
	write_link(db, "net2", 68);
	read_link(db, "net0", 1500);
	MUST(ostrel_db_walk(db, NULL, 0, note_link, NULL, seen, &halted) == OSTREL_WALK_HALTED);
	MUST(strcmp(seen, order) == 0 && halted == 7);
	OK(ostrel_db_rename(db, from, 0, to));
	MUST(ostrel_db_rename(db, from, 0, to) == OSTREL_NOT_FOUND);
	read_link(db, "net9", 9000);
	OK(ostrel_db_remove(db, to, 0));
	MUST(strcmp(ostrel_strerror(ostrel_db_remove(db, to, 0)), "object not found") == 0);
	OK(ostrel_db_check_auth(db, B_TRUE));
	if (cmds != ostrel_hatches_db_cmds && geteuid() == 0) {
		int hatch = -1;
		OK(ostrel_hatchserver_create("hatches/hatch", "", "", db, &hatch));
		use("hatches/hatch", ostrel_hatches_db_cmds, "net0 net2 net1 ");
		ostrel_hatchserver_destroy("hatches/hatch", hatch);
	}
	ostrel_db_close(db);
	attrlist_free(from);
	attrlist_free(to);
}

int main(int argc, char **argv)
{
	ostrel_db_t db = NULL;
	attrlist_t *id = identifiers("net0", "global");
	MUST(argc == 2 && chdir(argv[1]) == 0);
	ostrel_log_open("msglog");
	ostrel_log(7, "%s", "text");
	use("db", ostrel_files_db_cmds, "net0 net1 ");
	OK(ostrel_db_open("db", 5, ostrel_files_db_cmds, 0, &db));
	MUST(ostrel_db_read(db, id, 0, NULL) != OSTREL_SUCCESS); /* there is no such enclave */
	ostrel_db_close(db);
	MUST(ostrel_db_open("none", 0, ostrel_cairn_db_cmds, 0, &db) != OSTREL_SUCCESS);
	ostrel_make_files_obsolete(".", "^db$");
	attrlist_free(id);
	return access("db.obsolete", F_OK);
}
