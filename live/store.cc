// Finding the table of a libostrel, which may be any build: nothing of it is believed before it is seen to be ours.
#include "store.h"

#include <dlfcn.h>

#include "libostrel_handle.h"

namespace {

// Whether `address` lies in the object that `known` lies in: then it can be read.
bool is_beside(const void *address, const void *known)
{
	Dl_info one;
	Dl_info other;
	return dladdr(address, &one) != 0 && dladdr(known, &other) != 0 && one.dli_fbase == other.dli_fbase;
}

} // namespace

const struct ostrel_more *ostrelx_store_of(ostrel_db_t db)
{
	const ostrel_db_cmds_t known[] = {
	    ostrel_files_db_cmds, ostrel_rawfiles_db_cmds, ostrel_cairn_db_cmds, ostrel_hatches_db_cmds};
	for (ostrel_db_cmds_t cmds : known) {
		if (db->db_cmds != cmds)
			continue;
		const struct ostrel_more *more = cmds->dbc_more;
		const bool is_ours = more != nullptr && is_beside(more, cmds) &&
				     more->mark == ostrel_more::known_mark && more->version == ostrel_more::current;
		return is_ours ? more : nullptr;
	}
	return nullptr;
}
