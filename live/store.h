/*
 * What libostrelx knows of a handle: the table that its libostrel offers for this library alone.
 */
#ifndef LIBOSTRELX_STORE_H
#define LIBOSTRELX_STORE_H

#include "libostrel_more.h"
#include "libostrelx.h"

// The batch of the public interface.
struct ostrelx_batch {
	Batch items;
};

// The table of a handle's libostrel; NULL if that is a build which this one doesn't know.
const struct ostrel_more *ostrelx_store_of(ostrel_db_t db);

#endif
