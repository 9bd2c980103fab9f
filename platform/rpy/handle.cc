// Handles: binding to a daemon, and the one road to it. What every object needs lies here, too.
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <meridon/enclave.h>
#include <meridon/hatch.h>

#include "base/clock.h"
#include "base/files.h"
#include "hatch/call.h"
#include "hatch/epoch.h"
#include "rpy/object.h"

namespace rpy {
namespace {

constexpr const char *hatch_place = "system/transient/repository_hatch";
constexpr size_t path_max = 1024;

constexpr int64_t end_ns = 5 * second_ns; // how long a daemon that has given up its hatch may take to end

thread_local rpy_error_t last_error = RPY_ERROR_NONE;
thread_local bool last_is_open = false;

constexpr struct {
	rpy_error_t error;
	const char *text;
} error_texts[] = {
    {RPY_ERROR_NONE, "no error"},
    {RPY_ERROR_NOT_BOUND, "the handle isn't bound to a repository"},
    {RPY_ERROR_NOT_SET, "the object is empty"},
    {RPY_ERROR_NOT_FOUND, "nothing of that name"},
    {RPY_ERROR_TYPE_MISMATCH, "another type"},
    {RPY_ERROR_IN_USE, "in use"},
    {RPY_ERROR_CONNECTION_BROKEN, "the repository daemon has gone"},
    {RPY_ERROR_INVALID_ARGUMENT, "an invalid argument"},
    {RPY_ERROR_NO_MEMORY, "out of memory"},
    {RPY_ERROR_CONSTRAINT_VIOLATED, "not possible for this object"},
    {RPY_ERROR_EXISTS, "exists already"},
    {RPY_ERROR_NO_SERVER, "no repository daemon serves there"},
    {RPY_ERROR_NO_RESOURCES, "out of room or descriptors"},
    {RPY_ERROR_PERMISSION_DENIED, "no permission"},
    {RPY_ERROR_BACKEND_ACCESS, "the store can't be reached"},
    {RPY_ERROR_HANDLE_MISMATCH, "objects of different handles"},
    {RPY_ERROR_HANDLE_DESTROYED, "the handle has gone"},
    {RPY_ERROR_VERSION_MISMATCH, "an unknown client version"},
    {RPY_ERROR_BACKEND_READONLY, "the store can't be written at present"},
    {RPY_ERROR_DELETED, "was deleted"},
    {RPY_ERROR_TEMPLATE_INVALID, "an invalid template"},
    {RPY_ERROR_CONFLICT, "a conflict"},
    {RPY_ERROR_CALLBACK_FAILED, "a callback failed"},
    {RPY_ERROR_INTERNAL, "the repository daemon couldn't do it"},
};

// What a failing road to the daemon says to the caller.
rpy_error_t call_error(int error)
{
	switch (error) {
	case ENOMEM:
		return RPY_ERROR_NO_MEMORY;
	case EMFILE:
	case ENFILE:
	case EMSGSIZE:
		return RPY_ERROR_NO_RESOURCES;
	case EBADF:
	case ETIMEDOUT:
	case ECONNABORTED:
		return RPY_ERROR_CONNECTION_BROKEN;
	default:
		return RPY_ERROR_INTERNAL;
	}
}

rpy_error_t bind_error(int error)
{
	switch (error) {
	case EACCES:
	case EPERM:
		return RPY_ERROR_PERMISSION_DENIED;
	case ENOMEM:
		return RPY_ERROR_NO_MEMORY;
	case EMFILE:
	case ENFILE:
		return RPY_ERROR_NO_RESOURCES;
	default:
		return RPY_ERROR_NO_SERVER;
	}
}

// A mapping that a call gave.
struct FreshReply {
	hatch_arg_t *arg;
	const char *own;
	~FreshReply()
	{
		if (arg->rbuf != own)
			(void) munmap(arg->rbuf, arg->rsize);
	}
};

} // namespace

Block *make_block(size_t size)
{
	void *memory = ::malloc(sizeof(Block) + size);
	if (memory == nullptr)
		return nullptr;
	Block *block = new (memory) Block;
	block->size = size;
	return block;
}

void drop_block(Block *block)
{
	while (block != nullptr && block->holds.fetch_sub(1, std::memory_order_acq_rel) == 1) {
		Block *behind = block->next_page;
		::free(block);
		block = behind;
	}
}

bool copy_text(std::string_view from, Text *to)
{
	char *copy = static_cast<char *>(::malloc(from.size() + 1));
	if (copy == nullptr)
		return false;
	if (!from.empty())
		memcpy(copy, from.data(), from.size());
	copy[from.size()] = '\0';
	to->reset(copy);
	return true;
}

int fail(rpy_error_t error)
{
	last_error = error;
	last_is_open = false;
	return -1;
}

int fail_open(rpy_error_t error)
{
	(void) fail(error);
	last_is_open = true;
	return -1;
}

ssize_t give_text(std::string_view text, char *buffer, size_t size)
{
	if (buffer == nullptr && size != 0)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (size > 0) {
		size_t copied = text.size() < size ? text.size() : size - 1;
		if (copied > 0)
			memcpy(buffer, text.data(), copied);
		buffer[copied] = '\0';
	}
	return static_cast<ssize_t>(text.size());
}

std::string_view name_of(const char *text)
{
	if (text == nullptr)
		return {};
	std::string_view name(text, strnlen(text, name_max));
	return is_name(name) ? name : std::string_view();
}

bool Call::ready(const rpy_handle_t *handle) const
{
	if (!handle->hatch)
		return fail(RPY_ERROR_NOT_BOUND), false;
	return out.ok() || (fail(RPY_ERROR_NO_MEMORY), false);
}

Budget::Budget(size_t bytes) : end_(now_ns() + int64_t{RPY_CALL_SECONDS} * second_ns), bytes_(bytes) {}

bool Budget::left(int *seconds, size_t *bytes) const
{
	const int64_t rest = end_ - now_ns();
	*seconds = static_cast<int>((rest + second_ns - 1) / second_ns);
	*bytes = bytes_;
	return rest > 0 && bytes_ > 0;
}

size_t listing_max()
{
	const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
	const size_t part = pages > 0 && page > 0 ? static_cast<size_t>(pages) * static_cast<size_t>(page) / 16 : 0;
	return part > reply_max ? part : reply_max;
}

rpy_error_t Call::exchange(rpy_handle_t *handle, Budget *budget)
{
	int seconds;
	size_t bytes;
	is_open = false;
	if (!budget->left(&seconds, &bytes))
		return bytes > 0 ? RPY_ERROR_CONNECTION_BROKEN : RPY_ERROR_NO_RESOURCES;
	char room[16384];
	hatch_arg_t arg = {out.data(), out.size(), nullptr, 0, room, sizeof(room)};
	const int result = hatch_call_bounded(handle->hatch.get(), &arg, seconds, bytes);
	is_open = hatch::fate_is_open();
	if (result == -1)
		return call_error(errno);
	FreshReply fresh = {&arg, room};
	budget->take(arg.data_size);
	return keep({arg.data_ptr, arg.data_size});
}

rpy_error_t Call::keep(std::string_view bytes)
{
	reply = BlockRef(make_block(bytes.size()));
	if (!reply)
		return RPY_ERROR_NO_MEMORY;
	if (!bytes.empty())
		memcpy(reply->data(), bytes.data(), bytes.size());
	in = Reader(reply->data(), bytes.size());
	return RPY_ERROR_NONE;
}

rpy_error_t Call::take_head()
{
	bool speaks = in.u32() == magic;
	uint32_t error = in.u32();
	if (!in.ok() || !speaks || error < RPY_ERROR_NONE || error > RPY_ERROR_INTERNAL)
		return RPY_ERROR_INTERNAL;
	is_open = false; // the daemon has said what became of it
	return static_cast<rpy_error_t>(error);
}

bool Call::take(rpy_error_t error)
{
	if (error == RPY_ERROR_NONE)
		error = take_head();
	return error == RPY_ERROR_NONE || ((is_open ? fail_open(error) : fail(error)), false);
}

bool Call::send(rpy_handle_t *handle)
{
	Budget budget;
	return send(handle, &budget);
}

bool Call::send(rpy_handle_t *handle, Budget *budget)
{
	return ready(handle) && take(exchange(handle, budget));
}

bool Call::send_before(rpy_handle_t *handle, Call *undo)
{
	hatch::FollowUp follow_up(undo->out.view());
	if (send(handle))
		return true;
	const rpy_error_t error = last_error;
	if (!last_is_open)
		return false;
	const bool is_undone = !follow_up.was_sent() && undo->send(handle);
	return (is_undone ? fail(error) : fail_open(error)), false;
}

bool Call::send_read(rpy_handle_t *handle)
{
	return ready(handle) && take(exchange_together(handle, this));
}

rpy_error_t find_daemon(const rpy_handle_t *handle)
{
	if (!handle->hatch)
		return RPY_ERROR_NOT_BOUND;
	hatch_info_t info;
	if (hatch_info(handle->hatch.get(), &info) == -1)
		return call_error(errno);
	return (info.di_attributes & HATCH_REVOKED) != 0 ? RPY_ERROR_CONNECTION_BROKEN : RPY_ERROR_NONE;
}

bool Call::sound()
{
	return in.done() || (fail(RPY_ERROR_INTERNAL), false);
}

} // namespace rpy

using namespace rpy;

rpy_error_t rpy_error(void)
{
	return last_error;
}

const char *rpy_strerror(rpy_error_t error)
{
	for (const auto &entry : error_texts)
		if (entry.error == error)
			return entry.text;
	return "an unknown error";
}

rpy_handle_t *rpy_handle_create(uint32_t version)
{
	if (version != RPY_CLIENT_VERSION)
		return fail_null<rpy_handle_t>(RPY_ERROR_VERSION_MISMATCH);
	auto *handle = new (std::nothrow) rpy_handle_t;
	return handle != nullptr ? handle : fail_null<rpy_handle_t>(RPY_ERROR_NO_MEMORY);
}

void rpy_handle_destroy(rpy_handle_t *handle)
{
	CancellationWaits cancellation;
	if (handle != nullptr && handle->hatch)
		hatch_forget(handle->hatch.get());
	delete handle;
}

// ---- Decorations; a NULL value takes one back ----

static int set_path(rpy_handle_t *handle, const rpy_value_t *value)
{
	if (value == nullptr) {
		handle->path.reset();
		return 0;
	}
	if (value->size == 0 || value->size >= path_max)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	return copy_text(value->view(), &handle->path) ? 0 : fail(RPY_ERROR_NO_MEMORY);
}

static int set_enclave(rpy_handle_t *handle, const rpy_value_t *value)
{
	uint64_t id = value == nullptr ? ENCLAVE_ID_GLOBAL : value->number;
	if (id > ENCLAVE_ID_MAX)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	handle->enclave = static_cast<enclaveid_t>(id);
	return 0;
}

static constexpr struct {
	const char *name;
	rpy_type_t type;
	int (*set)(rpy_handle_t *handle, const rpy_value_t *value);
} decorations[] = {
    {"hatch_path", RPY_TYPE_ASTRING, set_path},
    {"enclave", RPY_TYPE_COUNT, set_enclave},
};

static int open_hatch(const rpy_handle_t &handle, const char *path)
{
	if (handle.enclave != ENCLAVE_ID_GLOBAL)
		return _enclave_open_in(handle.enclave, path);
	return handle.path ? _enclave_open(path) : open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

int rpy_handle_decorate(rpy_handle_t *handle, const char *name, rpy_value_t *value)
{
	if (handle == nullptr || name == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	for (const auto &decoration : decorations) {
		if (strcmp(name, decoration.name) != 0)
			continue;
		if (handle->hatch)
			return fail(RPY_ERROR_IN_USE);
		if (value != nullptr && value->type != decoration.type)
			return fail(RPY_ERROR_TYPE_MISMATCH);
		return decoration.set(handle, value);
	}
	return fail(RPY_ERROR_INVALID_ARGUMENT);
}

int rpy_handle_bind(rpy_handle_t *handle)
{
	CancellationWaits cancellation;
	if (handle == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (handle->hatch)
		return fail(RPY_ERROR_IN_USE);
	char fixed[PATH_MAX];
	const char *path = handle->path.get();
	if (path == nullptr) {
		if (meridon_path(hatch_place, fixed) != 0)
			return fail(RPY_ERROR_NO_SERVER);
		path = fixed;
	}
	Fd hatch(open_hatch(*handle, path));
	if (!hatch)
		return fail(bind_error(errno));
	struct stat kind;
	hatch_info_t info;
	if (fstat(hatch.get(), &kind) == -1 || !S_ISREG(kind.st_mode) || kind.st_nlink != 1 ||
	    hatch_info(hatch.get(), &info) == -1 || (info.di_attributes & HATCH_REVOKED) != 0)
		return fail(RPY_ERROR_NO_SERVER);
	handle->hatch = std::move(hatch);
	handle->daemon = info.di_target;
	handle->binder = hatch::epoch();
	return 0;
}

int rpy_handle_unbind(rpy_handle_t *handle)
{
	CancellationWaits cancellation;
	if (handle == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (!handle->hatch)
		return fail(RPY_ERROR_NOT_BOUND);
	hatch_forget(handle->hatch.get());
	handle->hatch.reset();
	return 0;
}

// ---- What became of a change ----

int _rpy_is_open(void)
{
	return last_is_open ? 1 : 0;
}

int _rpy_daemon_has_ended(const rpy_handle_t *handle)
{
	CancellationWaits cancellation;
	// The number says nothing in a child, which may be in another namespace.
	if (handle == nullptr || !handle->hatch || handle->daemon == 0 || handle->binder != hatch::epoch())
		return 0;
	// Who has taken the number since only makes the daemon seem to live.
	Fd process(static_cast<int>(syscall(SYS_pidfd_open, handle->daemon, 0)));
	if (!process)
		return errno == ESRCH ? 1 : 0;
	struct pollfd ended = {process.get(), POLLIN, 0};
	constexpr int64_t look_ns = 100 * millisecond_ns;
	const int64_t end = now_ns() + end_ns;
	do {
		if (poll_until(&ended, 1, now_ns() + look_ns) > 0)
			return 1;
	} while (find_daemon(handle) != RPY_ERROR_NONE && now_ns() < end);
	return 0;
}

uint64_t _rpy_new_change(void)
{
	uint64_t change = 0;
	// Without a number nothing is withdrawn.
	return getrandom(&change, sizeof(change), 0) == static_cast<ssize_t>(sizeof(change)) ? change : 0;
}

void _rpy_handle_set_change(rpy_handle_t *handle, uint64_t change)
{
	if (handle != nullptr)
		handle->change = change;
}

// ---- What is asked about the daemon itself ----

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
