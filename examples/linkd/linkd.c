/*
 * A small daemon's way to the store and back. In the daemon, a link's mode is a number, its features are bits, and its
 * servers are one text; people who read the database want names, and one value a server. The table below says so once,
 * and the library converts both ways.
 *
 * usage: linkd DATABASE
 */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <libostrel.h>

enum { MODE_AUTO, MODE_MANUAL, MODE_OFF, MODE_PROBING };
enum { FEATURE_RX = 1, FEATURE_TX = 2, FEATURE_VLAN = 4 };

static ostrel_valdesc_t mode_vals[] = {
    {"auto", "found out by the link itself", MODE_AUTO},
    {"manual", "as configured", MODE_MANUAL},
    {"off", "not used", MODE_OFF},
    {"?", "on its way to another mode: not stored", MODE_PROBING},
    {NULL, NULL, 0},
};

static ostrel_valdesc_t feature_vals[] = {
    {"rx", "checksums of what comes in", FEATURE_RX},
    {"tx", "checksums of what goes out", FEATURE_TX},
    {"vlan", "tags", FEATURE_VLAN},
    {NULL, NULL, 0},
};

/* The daemon's own table: the descriptor comes first, what the daemon needs besides behind it. */
struct property {
	ostrel_propdesc_t desc;
	const char *unit;
};

static const struct property properties[] = {
    {.desc = {.npd_name = "mode", .npd_type = DATA_TYPE_STRING, .npd_vals = mode_vals}},
    {.desc = {.npd_name = "lastmode", .npd_type = DATA_TYPE_STRING, .npd_vals = mode_vals}},
    {.desc = {.npd_name = "features",
	 .npd_type = DATA_TYPE_STRING,
	 .npd_flags = OSTREL_PROP_BITFIELD,
	 .npd_vals = feature_vals}},
    {.desc = {.npd_name = "servers",
	 .npd_type = DATA_TYPE_STRING,
	 .npd_flags = OSTREL_PROP_DELIMITED,
	 .npd_delimiters = ", "}},
    {.desc = {.npd_name = "mtu", .npd_type = DATA_TYPE_UINT64}, .unit = "bytes"},
    {.desc = {.npd_name = "enabled", .npd_type = DATA_TYPE_BOOLEAN}},
    {.desc = {.npd_name = "comment", .npd_type = DATA_TYPE_UINT64, .npd_flags = OSTREL_PROP_NO_CONVERT}},
    {.desc = {.npd_name = NULL}},
};

static const char *unit_of(const char *name)
{
	for (const struct property *property = properties; property->desc.npd_name != NULL; property++) {
		if (strcmp(property->desc.npd_name, name) == 0)
			return property->unit;
	}
	return NULL;
}

static void print_value(attrpair_t *pair, uint_t i)
{
	uint64_t *numbers;
	boolean_t *booleans;
	char **texts;
	uint_t count;

	if (attrpair_value_uint64_array(pair, &numbers, &count) == 0)
		printf(" %" PRIu64, numbers[i]);
	else if (attrpair_value_boolean_array(pair, &booleans, &count) == 0)
		printf(" %s", booleans[i] ? "yes" : "no");
	else if (attrpair_value_string_array(pair, &texts, &count) == 0)
		printf(" \"%s\"", texts[i]);
}

static uint_t value_count(attrpair_t *pair)
{
	uint64_t *numbers;
	boolean_t *booleans;
	char **texts;
	uint_t count = 0;

	if (attrpair_value_uint64_array(pair, &numbers, &count) != 0 &&
	    attrpair_value_boolean_array(pair, &booleans, &count) != 0)
		(void) attrpair_value_string_array(pair, &texts, &count);
	return count;
}

static void print_properties(const char *title, attrlist_t *props)
{
	printf("%s:\n", title);
	for (attrpair_t *pair = NULL; (pair = attrlist_next_attrpair(props, pair)) != NULL;) {
		printf("  %-8s", attrpair_name(pair));
		for (uint_t i = 0; i < value_count(pair); i++)
			print_value(pair, i);
		const char *unit = unit_of(attrpair_name(pair));
		printf("%s%s\n", unit != NULL ? " " : "", unit != NULL ? unit : "");
	}
}

/* What the daemon found out and was told so far. */
static int fill(attrlist_t *props)
{
	int error = ostrel_atl_add_one_uint64(props, "mode", MODE_MANUAL);
	if (error == 0)
		error = ostrel_atl_add_one_uint64(props, "lastmode", MODE_PROBING);
	if (error == 0)
		error = ostrel_atl_add_one_uint64(props, "features", FEATURE_RX | FEATURE_VLAN);
	if (error == 0)
		error = ostrel_atl_add_one_string(props, "servers", "192.0.2.1,192.0.2.2,  192.0.2.53");
	if (error == 0)
		error = ostrel_atl_add_one_string(props, "mtu", "0x2328");
	if (error == 0)
		error = ostrel_atl_add_one_string(props, "enabled", "TRUE");
	if (error == 0)
		error = ostrel_atl_add_one_string(props, "comment", "to the lab, not converted");
	return error;
}

static int complain(const char *what, const char *why)
{
	fprintf(stderr, "linkd: %s net0: %s\n", what, why);
	return 1;
}

/* Stores the properties, which are converted in place. */
static int store(ostrel_db_t db, attrlist_t *idl, attrlist_t *props)
{
	int error = fill(props);
	if (error != 0)
		return complain("fill", strerror(error));
	print_properties("in the daemon", props);
	error = ostrel_proplist_convert_to_persist(props, sizeof(properties[0]), properties);
	if (error != 0)
		return complain("convert", strerror(error));
	print_properties("in the store", props);
	ostrel_error_t result = ostrel_db_write(db, idl, 0, props);
	return result == OSTREL_SUCCESS ? 0 : complain("write", ostrel_strerror(result));
}

/* Reads them as they are stored, and makes of them what the daemon works with. */
static int load(ostrel_db_t db, attrlist_t *idl)
{
	attrlist_t *props;
	ostrel_error_t result = ostrel_db_read(db, idl, 0, &props);
	if (result != OSTREL_SUCCESS)
		return complain("read", ostrel_strerror(result));
	int error = ostrel_proplist_convert_from_persist(props, sizeof(properties[0]), properties);
	if (error == 0)
		print_properties("in the daemon again", props);
	attrlist_free(props);
	return error == 0 ? 0 : complain("convert", strerror(error));
}

static int store_and_load(const char *path, attrlist_t *idl, attrlist_t *props)
{
	ostrel_db_t db;
	ostrel_error_t result = ostrel_idlist_add(idl, "linkname", "net0");
	if (result == OSTREL_SUCCESS)
		result = ostrel_db_open(path, getenclaveid(), ostrel_files_db_cmds, 0, &db);
	if (result != OSTREL_SUCCESS)
		return complain("open", ostrel_strerror(result));
	int status = store(db, idl, props);
	if (status == 0)
		status = load(db, idl);
	ostrel_db_close(db);
	return status;
}

int main(int argc, char **argv)
{
	if (argc != 2) {
		fprintf(stderr, "usage: linkd DATABASE\n");
		return 2;
	}
	attrlist_t *idl = NULL, *props = NULL;
	int status = 1;
	if (ostrel_idlist_init(&idl, NULL) == OSTREL_SUCCESS && attrlist_alloc(&props, ATL_UNIQUE_NAME, 0) == 0)
		status = store_and_load(argv[1], idl, props);
	attrlist_free(props);
	attrlist_free(idl);
	return status;
}
