// Enclaves: which one this process is in, entering another, and what a process may have there.
#include "enclave/enclave_impl.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/files.h"

namespace {

constexpr enclaveid_t not_looked_up = -2;
constexpr enclaveid_t unknown = -1;
std::atomic<enclaveid_t> own_enclave{not_looked_up};

// The id in a mark: a number, and perhaps a newline.
enclaveid_t parse_mark(const char *text, size_t len)
{
	if (len > 0 && text[len - 1] == '\n')
		len--;
	uint64_t id;
	return meridon_parse_number({text, len}, ENCLAVE_ID_MAX, &id) ? static_cast<enclaveid_t>(id) : unknown;
}

// Whether a failure is here to stay. Others, such as a full table of descriptors, leave the look-up for the next call.
bool is_final(int error)
{
	return error != EMFILE && error != ENFILE && error != ENOMEM && error != EIO;
}

// Whether an enclave of that state can be entered.
bool is_enterable(enclave_state_t state)
{
	return state == ENCLAVE_STATE_READY || state == ENCLAVE_STATE_RUNNING || state == ENCLAVE_STATE_SHUTTING_DOWN;
}

// A root, a namespace or a process that isn't there must not read as a missing file.
int entry_error(int error)
{
	if (error == ENOENT || error == ENOTDIR)
		return ESRCH;
	return error == EACCES ? EPERM : error;
}

// Joins the leader's namespaces. Root of another user namespace is another user here, until it says who it is.
int join_namespaces(const EnclaveLeader &leader)
{
	if (leader.namespaces == 0)
		return 0;
	// Root of the enclave may trace its own processes. This one holds a copy of its parent's memory and descriptors.
	if ((leader.namespaces & CLONE_NEWUSER) != 0 && prctl(PR_SET_DUMPABLE, 0) == -1)
		return entry_error(errno);
	// The enclave's root belongs to none of this host's groups. Inside they couldn't be given up any more.
	if ((leader.namespaces & CLONE_NEWUSER) != 0 && syscall(SYS_setgroups, 0, nullptr) == -1 &&
	    getgroups(0, nullptr) != 0) // who may not give any up may have none
		return entry_error(EPERM);
	if (setns(leader.process.get(), leader.namespaces) == -1)
		return entry_error(errno);
	if ((leader.namespaces & CLONE_NEWUSER) == 0)
		return 0;
	// libc's own calls would wait for threads that a forked child doesn't have.
	if (syscall(SYS_setresgid, 0, 0, 0) == -1 || syscall(SYS_setresuid, 0, 0, 0) == -1)
		return EPERM;
	return 0;
}

int change_root(int root)
{
	if (fchdir(root) == -1 || chroot(".") == -1 || chdir("/") == -1)
		return entry_error(errno);
	return 0;
}

int change_root(const char *path)
{
	Fd root(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
	return root ? change_root(root.get()) : entry_error(errno);
}

// A leader with a root of its own has brought the enclave's root with it, and there the host's path means nothing. One
// that sees the host's tree, if only through a mount namespace of its own, is followed to the root by its path.
int enter_root_of_leader(const enclave_info_t &info)
{
	EnclaveLeader leader;
	if (int error = enclave_open_leader(&info, &leader))
		return error;
	if (int error = join_namespaces(leader))
		return error;
	if (int error = change_root(leader.root.get()))
		return error;
	return leader.confined ? 0 : change_root(info.ei_root);
}

// Takes a variable out of the environment where it stands: unsetenv() would take a lock that another thread may have
// held at the fork.
void drop_variable(const char *name)
{
	if (environ == nullptr)
		return;
	size_t len = strlen(name);
	char **to = environ;
	for (char **from = environ; *from != nullptr; from++)
		if (strncmp(*from, name, len) != 0 || (*from)[len] != '=')
			*to++ = *from;
	*to = nullptr;
}

int enter(enclaveid_t id)
{
	if (id < 0 || id > ENCLAVE_ID_MAX)
		return EINVAL;
	enclaveid_t own = getenclaveid();
	if (id == own)
		return 0;
	if (own != ENCLAVE_ID_GLOBAL)
		return EPERM;
	enclave_info_t info;
	if (int error = enclave_find_record(id, &info))
		return error;
	if (!is_enterable(info.ei_state))
		return ESRCH;
	if (int error = info.ei_leader != 0 ? enter_root_of_leader(info) : change_root(info.ei_root))
		return error;
	own_enclave.store(id);
	drop_variable("MERIDON_ROOT");
	return 0;
}

} // namespace

// Reads the mark. Gives 0, or what kept the answer from being final.
static int look_up_mark(enclaveid_t *id)
{
	char path[PATH_MAX], text[16];
	*id = unknown;
	if (meridon_path(enclave_mark_path, path) != 0)
		return 0;
	ssize_t len = meridon_read_file(path, text, sizeof text);
	if (len >= 0)
		*id = parse_mark(text, static_cast<size_t>(len));
	else if (errno == ENOENT || errno == ENOTDIR)
		*id = ENCLAVE_ID_GLOBAL;
	return len >= 0 || is_final(errno) ? 0 : errno;
}

int enclave_find_record(enclaveid_t id, enclave_info_t *info)
{
	Fd dir;
	int error = enclave_open_registry(&dir);
	if (error == 0)
		error = enclave_read_record(dir.get(), id, info);
	switch (error) {
	case ENOENT:
	case ENOTDIR:
		return EINVAL; // no such enclave
	case EBADMSG:
		return ESRCH;
	case EACCES:
		return EPERM;
	default:
		return error;
	}
}

// No lock: threads that look at the same moment find the same, and the first one to store it wins.
enclaveid_t getenclaveid(void)
{
	CancellationWaits cancellation;
	enclaveid_t id = own_enclave.load();
	if (id != not_looked_up || look_up_mark(&id) != 0)
		return id;
	enclaveid_t before = not_looked_up;
	return own_enclave.compare_exchange_strong(before, id) ? id : before;
}

int enclave_enter(enclaveid_t id)
{
	int error = enter(id);
	if (error == 0)
		return 0;
	errno = error;
	return -1;
}

// Root gets the bounding set back when it executes a program, but with no_new_privs nothing that it hasn't. So it doesn't
// matter that a process without CAP_SETPCAP can't make that set smaller.
int _enclave_confine(uint64_t capabilities)
{
	__user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
	__user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3];
	if (syscall(SYS_capget, &header, sets) == -1)
		return -1;
	for (int i = 0; i < _LINUX_CAPABILITY_U32S_3; i++) {
		auto kept = static_cast<uint32_t>(capabilities >> (32 * i));
		sets[i] = {sets[i].effective & kept, sets[i].permitted & kept, 0};
	}
	for (int i = 0; i < 32 * _LINUX_CAPABILITY_U32S_3; i++)
		if ((capabilities >> i & 1) == 0)
			(void) prctl(PR_CAPBSET_DROP, i, 0, 0, 0);
	if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == -1)
		return -1;
	return syscall(SYS_capset, &header, sets) == 0 ? 0 : -1;
}

int _enclave_capabilities(enclaveid_t id, uint64_t *capabilities)
{
	CancellationWaits cancellation;
	enclave_info_t info = {};
	int error = capabilities == nullptr ? EINVAL : 0;
	if (error == 0 && id != ENCLAVE_ID_GLOBAL && id != getenclaveid())
		error = enclave_find_record(id, &info);
	uint64_t found = UINT64_MAX;
	if (error == 0 && info.ei_leader != 0)
		error = enclave_read_bounding_set(info, &found);
	if (error == 0) {
		*capabilities = found;
		return 0;
	}
	errno = error;
	return -1;
}
