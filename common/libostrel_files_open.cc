// The file of an operation on a flat or raw file.
#include "libostrel_files_open.h"

#include <cerrno>
#include <fcntl.h>

#include "libostrel_handle.h"
#include "libostrel_idlist.h"
#include "libostrel_zio.h"

const char *ostrel_file_path(ostrel_db_t db, attrlist_t *idlist)
{
	char *name = nullptr;
	if (ostrel_idlist_get_db_name(idlist, &name) == OSTREL_SUCCESS)
		return name;
	return db != nullptr ? ostrel_db_get_name(db) : nullptr;
}

int ostrel_open_db_file(ostrel_db_t db, const char *path, int oflag, int *err)
{
	enclaveid_t enclave = db != nullptr && getenclaveid() == 0 ? ostrel_db_get_enclaveid(db) : 0;
	if (enclave != 0)
		return ostrel_zopen(path, oflag, 0, enclave, err);
	int fd = open(path, oflag);
	*err = fd < 0 ? errno : 0;
	return fd;
}
