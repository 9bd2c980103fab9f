// Handles: decorations, binding to a daemon, and what became of a change.
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <meridon/enclave.h>
#include <meridon/hatch.h>

#include "base/clock.h"
#include "base/files.h"
#include "base/hatch_client.h"
#include "rpy/object.h"

namespace rpy {
namespace {

constexpr const char *hatch_path = "system/transient/repository_hatch";
constexpr size_t path_max = 1024;

constexpr int64_t end_ns = 5 * second_ns; // how long a daemon that has given up its hatch may take to end

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

} // namespace

} // namespace rpy

using namespace rpy;

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

// Binding needs no call: a hatch tells whether its server lives. The path has to be a regular file with one link: a hard link to
// a hatch of the host, planted in an enclave, would lead its caller to the host's daemon.
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
		if (meridon_path(hatch_path, fixed) != 0)
			return fail(RPY_ERROR_NO_SERVER);
		path = fixed;
	}
	Fd hatch(open_hatch(*handle, path));
	if (!hatch)
		return fail(bind_error(errno));
	struct stat kind;
	hatch_info_t info;
	if (fstat(hatch.get(), &kind) == -1 || !S_ISREG(kind.st_mode) || kind.st_nlink != 1 ||
	    !is_living_hatch(hatch.get(), &info))
		return fail(RPY_ERROR_NO_SERVER);
	handle->hatch = std::move(hatch);
	handle->daemon = info.di_target;
	handle->binder.claim();
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

// A daemon that gives up its hatch may take some seconds to end. As long as its process lives, it may carry out what it was
// sent; only the end of the process settles that.
int _rpy_daemon_has_ended(const rpy_handle_t *handle)
{
	CancellationWaits cancellation;
	// A forked child may be in another namespace, in which the number is another process.
	if (handle == nullptr || !handle->hatch || handle->daemon == 0 || !handle->binder.is_own())
		return 0;
	// Another process may have the number since. Then the daemon seems to live.
	Fd process(static_cast<int>(syscall(SYS_pidfd_open, handle->daemon, 0)));
	if (!process)
		return errno == ESRCH ? 1 : 0;
	struct pollfd ended = {process.get(), POLLIN, 0};
	constexpr int64_t look_ns = 100 * millisecond_ns;
	const Deadline end = Deadline::in(end_ns);
	do {
		if (poll_until(&ended, 1, Deadline::in(look_ns)) > 0)
			return 1;
	} while (find_daemon(handle) != RPY_ERROR_NONE && !end.has_passed());
	return 0;
}

uint64_t _rpy_new_change(void)
{
	uint64_t change = 0;
	// Without a number (0) nothing is withdrawn.
	return getrandom(&change, sizeof(change), 0) == static_cast<ssize_t>(sizeof(change)) ? change : 0;
}

void _rpy_handle_set_change(rpy_handle_t *handle, uint64_t change)
{
	if (handle != nullptr)
		handle->change = change;
}
