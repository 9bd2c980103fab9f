// Maintenance: what is asked about the daemon itself and its store.
#include <meridon/hatch.h>

#include "rpy/object.h"

using namespace rpy;

int _rpy_status(rpy_handle_t *handle, rpy_status_t *status)
{
	if (handle == nullptr || status == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Call call(Op::status);
	if (!call.send(handle))
		return -1;
	rpy_status_t found = {};
	hatch_info_t info = {};
	(void) call.in.u64(); // its own idea of its process id, which may be another namespace's
	found.rs_format = call.in.u32();
	found.rs_writable = call.in.u32() != 0;
	(void) give_text(call.in.text(), found.rs_file, sizeof(found.rs_file));
	found.rs_groups = call.in.u64();
	found.rs_bytes = call.in.u64();
	if (!call.sound())
		return -1;
	if (hatch_info(handle->hatch.get(), &info) == 0)
		found.rs_pid = info.di_target;
	*status = found;
	return 0;
}

int _rpy_verify(rpy_handle_t *handle, char **findings)
{
	if (handle == nullptr || findings == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Call call(Op::verify);
	if (!call.send(handle))
		return -1;
	std::string_view text = call.in.text();
	Text copy;
	if (!call.sound())
		return -1;
	if (!copy_text(text, &copy))
		return fail(RPY_ERROR_NO_MEMORY);
	*findings = copy.release();
	return 0;
}

int _rpy_backup(rpy_handle_t *handle, void **bytes, size_t *size)
{
	if (handle == nullptr || bytes == nullptr || size == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Call call(Op::backup);
	Budget budget(SIZE_MAX); // the store, of whatever size
	if (!call.send(handle, &budget))
		return -1;
	std::string_view rest = call.in.bytes(call.in.left());
	Text copy;
	if (!copy_text(rest, &copy))
		return fail(RPY_ERROR_NO_MEMORY);
	*size = rest.size();
	*bytes = copy.release();
	return 0;
}
