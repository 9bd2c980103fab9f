/*
 * A stranger to this tree: knows nothing but the installed headers and libraries. Valid as C11 and as C++20.
 * usage: foreigner PATH   (a database file that isn't there yet)
 */
#include <stdio.h>
#include <string.h>

#include <libostrel.h>

static int failures;

#define EXPECT(condition)                                                                                              \
	do {                                                                                                           \
		if (!(condition)) {                                                                                    \
			failures++;                                                                                    \
			fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                        \
		}                                                                                                      \
	} while (0)

#define OK(call) EXPECT((call) == OSTREL_SUCCESS)

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
	EXPECT(attrlist_alloc(&props, ATL_UNIQUE_NAME, 0) == 0);
	EXPECT(ostrel_atl_add_one_uint32(props, "mtu", mtu) == 0);
	EXPECT(ostrel_atl_add_one_boolean(props, "on", B_TRUE) == 0);
	EXPECT(ostrel_atl_add_one_string(props, "alias", "a=b;c, d\\e") == 0);
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
	EXPECT(ostrel_atl_get_one_uint32(props, "mtu", &found) == 0 && found == mtu);
	EXPECT(ostrel_atl_get_one_boolean(props, "on", &on) == 0 && on == B_TRUE);
	EXPECT(ostrel_atl_get_one_string(props, "alias", &alias) == 0 && strcmp(alias, "a=b;c, d\\e") == 0);
	snprintf(wanted, sizeof(wanted), "linkname=%s;zone=global;", link);
	OK(ostrel_idlist2idstr(idl, text));
	EXPECT(strcmp(text, wanted) == 0);
	attrlist_free(props);
	attrlist_free(idl);
}

static int note_link(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *arg)
{
	char *link = NULL;
	char *seen = (char *) arg;
	(void) db;
	(void) flags;
	OK(ostrel_idlist_get(idl, "linkname", &link));
	EXPECT(attrlist_exists(props, "mtu"));
	strcat(strcat(seen, link), " ");
	return strcmp(link, "net1") == 0 ? 7 : 0;
}

static int by_name_backwards(attrlist_t **a, attrlist_t **b)
{
	attrlist_t *left = NULL;
	attrlist_t *right = NULL;
	char left_text[OSTREL_IDSTR_SIZE];
	char right_text[OSTREL_IDSTR_SIZE];
	OK(ostrel_object_get(*a, &left, NULL));
	OK(ostrel_object_get(*b, &right, NULL));
	OK(ostrel_idlist2idstr(left, left_text));
	OK(ostrel_idlist2idstr(right, right_text));
	attrlist_free(left);
	attrlist_free(right);
	return strcmp(right_text, left_text);
}

int main(int argc, char **argv)
{
	ostrel_db_t db = NULL;
	attrlist_t *from = identifiers("net1", "global");
	attrlist_t *to = identifiers("net9", "global");
	char seen[100] = "";
	int halted = 0;

	if (argc != 2 || ostrel_db_open(argv[1], 0, ostrel_files_db_cmds, 0, &db) != OSTREL_SUCCESS)
		return 2;
	EXPECT(ostrel_db_read(db, from, 0, NULL) == OSTREL_NOT_FOUND);
	write_link(db, "net0", 1500);
	write_link(db, "net1", 9000);
	write_link(db, "net2", 68);
	read_link(db, "net0", 1500);
	read_link(db, "net2", 68);

	EXPECT(ostrel_db_walk(db, NULL, 0, note_link, by_name_backwards, seen, &halted) == OSTREL_WALK_HALTED);
	EXPECT(strcmp(seen, "net2 net1 ") == 0 && halted == 7);

	OK(ostrel_db_rename(db, from, 0, to));
	EXPECT(ostrel_db_rename(db, from, 0, to) == OSTREL_NOT_FOUND);
	read_link(db, "net9", 9000);
	OK(ostrel_db_remove(db, to, 0));
	EXPECT(strcmp(ostrel_strerror(ostrel_db_remove(db, to, 0)), "object not found") == 0);
	OK(ostrel_db_check_auth(db, B_TRUE));

	ostrel_db_close(db);
	attrlist_free(from);
	attrlist_free(to);
	return failures == 0 ? 0 : 1;
}
