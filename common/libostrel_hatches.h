/*
 * The hatch transport: the block that travels between a client and the server of a database, and what the two sides
 * share. The block's layout has its page in docs/formats/hatch-block.md.
 */
#ifndef LIBOSTREL_HATCHES_H
#define LIBOSTREL_HATCHES_H

#include <atomic>
#include <cstddef>

#include <meridon/hatch.h>

#include "base/guards.h"
#include "libostrel_backend.h"

typedef enum ostrel_hatch_cmd MERIDON_ENUM32 {
	OSTREL_HATCH_CMD_READ_REQ = 1000,
	OSTREL_HATCH_CMD_WRITE_REQ = 1001,
	OSTREL_HATCH_CMD_RENAME_REQ = 1002,
	OSTREL_HATCH_CMD_REMOVE_REQ = 1003,
	OSTREL_HATCH_CMD_CHECK_READ_AUTH_REQ = 1004,
	OSTREL_HATCH_CMD_CHECK_WRITE_AUTH_REQ = 1005
} ostrel_hatch_cmd_t;

// The head of a block, request or reply. The packed identifier list and the packed data list follow, each of any length and with
// nothing in between.
typedef struct ostrel_arg {
	ostrel_hatch_cmd_t nda_cmd;
	enclaveid_t nda_enclaveid;
	ostrel_error_t nda_result;
	uint32_t nda_padding; // 0
	uint64_t nda_idlen;
	uint64_t nda_datalen;
	uint64_t nda_flags;
} ostrel_hatch_arg_t;

static_assert(sizeof(ostrel_hatch_arg_t) == 40);
static_assert(offsetof(ostrel_hatch_arg_t, nda_cmd) == 0 && sizeof(ostrel_hatch_cmd_t) == 4);
static_assert(offsetof(ostrel_hatch_arg_t, nda_enclaveid) == 4 && sizeof(enclaveid_t) == 4);
static_assert(offsetof(ostrel_hatch_arg_t, nda_result) == 8 && sizeof(ostrel_error_t) == 4);
static_assert(offsetof(ostrel_hatch_arg_t, nda_padding) == 12);
static_assert(offsetof(ostrel_hatch_arg_t, nda_idlen) == 16);
static_assert(offsetof(ostrel_hatch_arg_t, nda_datalen) == 24);
static_assert(offsetof(ostrel_hatch_arg_t, nda_flags) == 32);

// The length that a block of this head has. False: no block can be so long.
inline bool ostrel_hatch_block_size(const ostrel_hatch_arg_t *head, size_t *size)
{
	return !__builtin_add_overflow(head->nda_idlen, head->nda_datalen, size) &&
	       !__builtin_add_overflow(*size, sizeof(ostrel_hatch_arg_t), size);
}

// What a client's handle points to: the open descriptor of the path. NULL after the server has gone, until the path can be opened
// again. The handle is one of its users, and each call another: so no thread closes the descriptor, and its number goes to no other
// file, while a call is about to use it.
struct HatchCell {
	int fd;
	std::atomic<unsigned int> users;
};
void ostrel_leave_hatch(HatchCell *cell);
using HatchUse = Handle<HatchCell, ostrel_leave_hatch>;

// Gives the handle's cell, whose server lives or whose path was opened just now. Errors: 0, or an errno value.
int ostrel_use_hatch(ostrel_db_t db, HatchUse *use);

// The slots of the client.
ostrel_opencmd_t ostrel_hatch_db_open;
ostrel_closecmd_t ostrel_hatch_db_close;
ostrel_readcmd_t ostrel_read_objects_from_hatch;
ostrel_writecmd_t ostrel_write_object_to_hatch;
ostrel_renamecmd_t ostrel_rename_object_in_hatch;
ostrel_removecmd_t ostrel_remove_object_from_hatch;
ostrel_authcmd_t ostrel_hatch_check_auth;

/*
 * Sends a command and gives the server's answer. `list` points to the list that goes as data (write, rename) or to the
 * place for the reply list (read); NULL with the other commands. `idlist` may be NULL.
 *
 * Owns:   the reply list is new, the caller's.
 * Errors: OSTREL_INVALID_ARG  no name; a list that can't be packed, or isn't there: nothing was sent
 *         OSTREL_FAILURE      the server has gone, or its reply is no block
 *         OSTREL_NO_MEMORY
 *         those of opening the path again; what the server answered
 */
ostrel_error_t ostrel_hatch_call(
    ostrel_db_t db, ostrel_hatch_cmd_t cmd, attrlist_t *idlist, uint64_t flags, attrlist_t **list);

/*
 * Makes one call with a request block, on the handle's descriptor. If that isn't a living hatch, the path is opened again
 * first. No call is repeated.
 *
 * Owns:   *reply is a heap copy of the reply, for free(), and as long as its head says at least; untouched if there was no
 *         reply data, and on failure.
 * Errors: errno values, 0 for success; EPROTO for a reply that is no block
 */
int ostrel_make_hatch_call(ostrel_db_t db, ostrel_hatch_arg_t *request, size_t size, ostrel_hatch_arg_t **reply);

/*
 * Unpacks the lists of a block whose lengths were checked. Either of `idlist` and `data` may be NULL: that list isn't
 * read. A list of no bytes gives NULL.
 *
 * Owns:   both lists are new, the caller's; *idlist also if `data` couldn't be unpacked.
 * Errors: nda_result, if it isn't 0: nothing is written then
 *         OSTREL_INVALID_ARG  bytes that are no list
 *         OSTREL_NO_MEMORY
 */
ostrel_error_t ostrel_read_lists_from_hatch_arg(const ostrel_hatch_arg_t *arg, attrlist_t **idlist, attrlist_t **data);

// Serves one call on a database, the cookie. Contract: hatch_handler_t. Every request gets a block for an answer.
extern "C" hatch_handler_t ostrel_hatch_handler;

#endif
