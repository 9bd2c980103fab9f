// Flat files and raw files: not there yet.
#include "libostrel_impl.h"

ostrel_error_t ostrel_read_objects_from_file(ostrel_db_t, attrlist_t *, uint64_t, attrlist_t ***, unsigned int *)
{
	return OSTREL_NOTSUP;
}

ostrel_error_t ostrel_read_objects_from_rawfile(ostrel_db_t, attrlist_t *, uint64_t, attrlist_t ***, unsigned int *)
{
	return OSTREL_NOTSUP;
}

ostrel_error_t ostrel_write_object_to_file(ostrel_db_t, attrlist_t *, uint64_t, attrlist_t *)
{
	return OSTREL_NOTSUP;
}

ostrel_error_t ostrel_rename_object_in_file(ostrel_db_t, attrlist_t *, uint64_t, attrlist_t *)
{
	return OSTREL_NOTSUP;
}

ostrel_error_t ostrel_remove_object_from_file(ostrel_db_t, attrlist_t *, uint64_t)
{
	return OSTREL_NOTSUP;
}
