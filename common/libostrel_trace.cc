// Where the trace points of the operations fire: the texts of their arguments are made here, while a tracer is attached.
#include "libostrel_trace.h"

#include "libostrel_error.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"
#include "libostrel_util.h"

unsigned short ostrel_db__read_semaphore = 0;
unsigned short ostrel_db__write_semaphore = 0;
unsigned short ostrel_db__rename_semaphore = 0;
unsigned short ostrel_db__remove_semaphore = 0;
unsigned short ostrel_db__walk_semaphore = 0;
unsigned short ostrel_db__walk__cb_semaphore = 0;

static constexpr size_t props_text_size = 512;

// A list that doesn't fit, or holds what is no text, leaves what came before: good enough to look at.
static const char *ids_text(attrlist_t *idl, char (&buf)[OSTREL_IDSTR_SIZE])
{
	(void) ostrel_idlist2idstr(idl, buf);
	return buf;
}

static const char *error_text(ostrel_error_t result)
{
	return result == OSTREL_SUCCESS ? nullptr : ostrel_strerror(result);
}

void ostrel_trace_db_read(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *props)
{
	char ids[OSTREL_IDSTR_SIZE];
	char text[props_text_size];
	const char *shown = result == OSTREL_SUCCESS ? ostrel_atl2str(props, text, sizeof(text)) : nullptr;
	STAP_PROBE5(ostrel, db__read, static_cast<int>(result), ostrel_db_get_name(db), ids_text(idl, ids), shown,
	    error_text(result));
}

void ostrel_trace_db_write(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *props)
{
	char ids[OSTREL_IDSTR_SIZE];
	char text[props_text_size];
	STAP_PROBE5(ostrel, db__write, static_cast<int>(result), ostrel_db_get_name(db), ids_text(idl, ids),
	    ostrel_atl2str(props, text, sizeof(text)), error_text(result));
}

void ostrel_trace_db_rename(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl, attrlist_t *newidl)
{
	char ids[OSTREL_IDSTR_SIZE];
	char newids[OSTREL_IDSTR_SIZE];
	STAP_PROBE5(ostrel, db__rename, static_cast<int>(result), ostrel_db_get_name(db), ids_text(idl, ids),
	    ids_text(newidl, newids), error_text(result));
}

void ostrel_trace_db_remove(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl)
{
	char ids[OSTREL_IDSTR_SIZE];
	const char *none = nullptr;
	STAP_PROBE5(ostrel, db__remove, static_cast<int>(result), ostrel_db_get_name(db), ids_text(idl, ids), none,
	    error_text(result));
}

void ostrel_trace_db_walk(ostrel_error_t result, ostrel_db_t db, attrlist_t *idl)
{
	char ids[OSTREL_IDSTR_SIZE];
	const char *none = nullptr;
	STAP_PROBE5(ostrel, db__walk, static_cast<int>(result), ostrel_db_get_name(db), ids_text(idl, ids), none,
	    error_text(result));
}

void ostrel_trace_db_walk_cb(int returned, ostrel_db_t db, attrlist_t *idl, attrlist_t *props, void *arg)
{
	char ids[OSTREL_IDSTR_SIZE];
	char text[props_text_size];
	STAP_PROBE5(ostrel, db__walk__cb, returned, ostrel_db_get_name(db), ids_text(idl, ids),
	    ostrel_atl2str(props, text, sizeof(text)), arg);
}
