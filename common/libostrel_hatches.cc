// The hatch back end: a database that another process serves. Each operation is one call, which is never repeated. A handle
// keeps nothing but an open descriptor of the path, and opens the path again if the server has gone.
//
// Divisions: the descriptor; calls; the slots.
#include "libostrel_hatches.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>

#include "base/guards.h"
#include "base/hatch_client.h"
#include "libostrel_handle.h"
#include "libostrel_objects.h"

namespace {

HatchCell *cell_of(ostrel_db_t db) REQUIRES(db->db_privlock)
{
	return static_cast<HatchCell *>(ostrel_db_get_priv(db));
}

// Opens the path and makes the handle's cell of it.
ostrel_error_t open_cell(ostrel_db_t db) REQUIRES(db->db_privlock)
{
	const char *path = ostrel_db_get_name(db);
	if (path == nullptr)
		return OSTREL_INVALID_ARG;
	// The first call finds out whether it is a hatch. O_NONBLOCK: opening a FIFO would wait.
	Fd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
	if (!fd)
		return ostrel_errno2error(errno);
	HatchCell *cell = new (std::nothrow) HatchCell{fd.get(), 1};
	if (cell == nullptr)
		return OSTREL_NO_MEMORY;
	(void) fd.release(); // the cell's now
	ostrel_db_set_priv(db, cell);
	return OSTREL_SUCCESS;
}

// In a forked child a thread that it doesn't have may hold the lock.
void enter_process(ostrel_db_t db)
{
	db->db_priv_process.enter([db] { db->db_privlock.init(); });
}

// Whether a reply holds all that its head says. The server may be anybody's program, and may send anything.
bool is_block(const char *data, size_t size)
{
	ostrel_hatch_arg_t head;
	size_t needed;
	if (size < sizeof(head))
		return false;
	memcpy(&head, data, sizeof(head));
	return ostrel_hatch_block_size(&head, &needed) && needed <= size;
}

int copy_reply(const char *data, size_t size, ostrel_hatch_arg_t **reply)
{
	if (!is_block(data, size))
		return EPROTO;
	void *copy = malloc(size);
	if (copy == nullptr)
		return ENOMEM;
	memcpy(copy, data, size);
	*reply = static_cast<ostrel_hatch_arg_t *>(copy);
	return 0;
}

// A list in its packed form; none at all has no bytes.
class PackedList {
public:
	int pack(attrlist_t *list) { return attrlist_pack(list, bytes_.out(), &size_, ATL_ENCODE_XDR, 0); }
	size_t size() const { return size_; }
	char *append_to(char *place) const
	{
		if (size_ > 0)
			memcpy(place, bytes_.get(), size_);
		return place + size_;
	}

private:
	Heap<char> bytes_;
	size_t size_ = 0;
};

bool sends_list(ostrel_hatch_cmd_t cmd)
{
	return cmd == OSTREL_HATCH_CMD_WRITE_REQ || cmd == OSTREL_HATCH_CMD_RENAME_REQ;
}

} // namespace

// ---- The descriptor ----

void ostrel_leave_hatch(HatchCell *cell)
{
	if (cell->users.fetch_sub(1, std::memory_order_acq_rel) > 1)
		return;
	hatch_forget(cell->fd);
	(void) close(cell->fd); // it was only read from
	delete cell;
}

int ostrel_use_hatch(ostrel_db_t db, HatchUse *use)
{
	enter_process(db);
	MutexLock lock(db->db_privlock);
	HatchCell *cell = cell_of(db);
	hatch_info_t info;
	if (cell != nullptr && !is_living_hatch(cell->fd, &info)) {
		ostrel_db_set_priv(db, nullptr);
		ostrel_leave_hatch(cell);
		cell = nullptr;
	}
	if (cell == nullptr) {
		if (ostrel_error_t result = open_cell(db))
			return ostrel_error2errno(result);
		cell = cell_of(db);
	}
	cell->users.fetch_add(1, std::memory_order_relaxed);
	use->reset(cell);
	return 0;
}

// ---- Calls ----

int ostrel_make_hatch_call(ostrel_db_t db, ostrel_hatch_arg_t *request, size_t size, ostrel_hatch_arg_t **reply)
{
	// No buffer for the reply: it comes in a fresh mapping, whatever its size.
	hatch_arg_t arg = {reinterpret_cast<char *>(request), size, nullptr, 0, nullptr, 1};
	HatchUse cell;
	if (int error = ostrel_use_hatch(db, &cell))
		return error;
	if (hatch_call(cell->fd, &arg) == -1)
		return errno;
	if (arg.rbuf == nullptr) // no reply
		return 0;
	const FreshReply fresh(arg, nullptr);
	return copy_reply(arg.rbuf, arg.rsize, reply);
}

ostrel_error_t ostrel_hatch_call(
    ostrel_db_t db, ostrel_hatch_cmd_t cmd, attrlist_t *idlist, uint64_t flags, attrlist_t **list)
{
	Heap<ostrel_hatch_arg_t> reply;
	Heap<ostrel_hatch_arg_t> request;
	PackedList data;
	PackedList ids;

	if (ostrel_db_get_name(db) == nullptr)
		return OSTREL_INVALID_ARG;
	if (idlist != nullptr) {
		if (int error = ids.pack(idlist))
			return ostrel_errno2error(error);
	}
	if (sends_list(cmd)) {
		if (int error = data.pack(*list))
			return ostrel_errno2error(error);
	}
	const size_t size = sizeof(ostrel_hatch_arg_t) + ids.size() + data.size();
	request.reset(static_cast<ostrel_hatch_arg_t *>(calloc(1, size)));
	if (!request)
		return ostrel_errno2error(errno);
	*request.get() = {cmd, ostrel_db_get_enclaveid(db), OSTREL_SUCCESS, 0, ids.size(), data.size(), flags};
	data.append_to(ids.append_to(reinterpret_cast<char *>(request.get() + 1)));

	if (int error = ostrel_make_hatch_call(db, request.get(), size, reply.out()))
		return ostrel_errno2error(error);
	if (!reply)
		return OSTREL_SUCCESS;
	if (reply->nda_result != OSTREL_SUCCESS || cmd != OSTREL_HATCH_CMD_READ_REQ)
		return reply->nda_result;
	return ostrel_read_lists_from_hatch_arg(reply.get(), nullptr, list);
}

ostrel_error_t ostrel_read_lists_from_hatch_arg(const ostrel_hatch_arg_t *arg, attrlist_t **idlist, attrlist_t **data)
{
	const char *id_bytes = reinterpret_cast<const char *>(arg + 1);
	const char *data_bytes = id_bytes + arg->nda_idlen;

	if (arg->nda_result != OSTREL_SUCCESS)
		return arg->nda_result;
	if (idlist != nullptr)
		*idlist = nullptr;
	if (data != nullptr)
		*data = nullptr;
	if (idlist != nullptr && arg->nda_idlen != 0) {
		if (int error = attrlist_unpack(id_bytes, arg->nda_idlen, idlist, 0))
			return ostrel_errno2error(error);
	}
	if (data != nullptr && arg->nda_datalen != 0) {
		if (int error = attrlist_unpack(data_bytes, arg->nda_datalen, data, 0))
			return ostrel_errno2error(error);
	}
	return OSTREL_SUCCESS;
}

// ---- The slots ----

ostrel_error_t ostrel_hatch_db_open(ostrel_db_t db)
{
	MutexLock lock(db->db_privlock);
	return open_cell(db);
}

void ostrel_hatch_db_close(ostrel_db_t db)
{
	enter_process(db);
	MutexLock lock(db->db_privlock);
	HatchUse closing(cell_of(db));
	ostrel_db_set_priv(db, nullptr);
}

ostrel_error_t ostrel_read_objects_from_hatch(
    ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t ***objects, unsigned int *count)
{
	AttrList list;
	if (ostrel_error_t result = ostrel_hatch_call(db, OSTREL_HATCH_CMD_READ_REQ, idlist, flags, list.out()))
		return result;
	return ostrel_object_list_get_objects(list.get(), objects, count);
}

ostrel_error_t ostrel_write_object_to_hatch(ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t *props)
{
	return ostrel_hatch_call(db, OSTREL_HATCH_CMD_WRITE_REQ, idlist, flags, &props);
}

ostrel_error_t ostrel_rename_object_in_hatch(ostrel_db_t db, attrlist_t *idlist, uint64_t flags, attrlist_t *newidlist)
{
	return ostrel_hatch_call(db, OSTREL_HATCH_CMD_RENAME_REQ, idlist, flags, &newidlist);
}

ostrel_error_t ostrel_remove_object_from_hatch(ostrel_db_t db, attrlist_t *idlist, uint64_t flags)
{
	return ostrel_hatch_call(db, OSTREL_HATCH_CMD_REMOVE_REQ, idlist, flags, nullptr);
}

ostrel_error_t ostrel_hatch_check_auth(ostrel_db_t db, boolean_t writing)
{
	const ostrel_hatch_cmd_t cmd =
	    writing != B_FALSE ? OSTREL_HATCH_CMD_CHECK_WRITE_AUTH_REQ : OSTREL_HATCH_CMD_CHECK_READ_AUTH_REQ;
	return ostrel_hatch_call(db, cmd, nullptr, 0, nullptr);
}
