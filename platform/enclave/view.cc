// Enclaves as other processes see them: attributes, what lies below a root, who lives there.
#include "enclave/enclave_impl.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "base/clock.h"
#include "base/files.h"

namespace {

using std::string_view;

int fail_with(int error)
{
	errno = error;
	return -1;
}

ssize_t give(string_view text, void *buffer, size_t size)
{
	if (buffer == nullptr)
		return fail_with(EINVAL);
	if (size <= text.size())
		return fail_with(ERANGE);
	memcpy(buffer, text.data(), text.size());
	static_cast<char *>(buffer)[text.size()] = '\0';
	return static_cast<ssize_t>(text.size() + 1);
}

// The process's own root, as the layer's fixed paths see it.
ssize_t give_own_root(void *buffer, size_t size)
{
	char path[PATH_MAX];
	if (int error = meridon_path("", path))
		return fail_with(error);
	size_t length = strlen(path);
	while (length > 1 && path[length - 1] == '/')
		length--;
	return give({path, length}, buffer, size);
}

// ---- Paths below a root ----

// The root of a path: the longest one of a registered enclave that the path lies below. Empty if there is none.
struct RootOf {
	char text[ENCLAVE_ROOT_MAX + 1] = "";

	RootOf(const char *path, const enclave_info_t *infos, size_t count)
	{
		for (size_t i = 0; i < count; i++)
			note(path, string_view(infos[i].ei_root));
	}

private:
	void note(const char *path, string_view root)
	{
		while (!root.empty() && root.back() == '/')
			root.remove_suffix(1);
		if (root.size() <= strlen(text) || strncmp(path, root.data(), root.size()) != 0 ||
		    path[root.size()] != '/')
			return;
		text[root.copy(text, root.size())] = '\0';
	}
};

int open_inside(const char *root, const char *rest)
{
	Fd top(open(root, O_PATH | O_DIRECTORY | O_CLOEXEC));
	if (!top)
		return -1;
	open_how how = {};
	how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
	how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
	return static_cast<int>(syscall(SYS_openat2, top.get(), rest, &how, sizeof(how)));
}

// ---- Who lives there ----

bool same_directory(int a, int b)
{
	struct stat of_a, of_b;
	return fstat(a, &of_a) == 0 && fstat(b, &of_b) == 0 && of_a.st_dev == of_b.st_dev && of_a.st_ino == of_b.st_ino;
}

// The root of an enclave, and whether the process shares its leader's view of paths.
bool open_root_for(const enclave_info_t &info, pid_t pid, Fd *root)
{
	if (info.ei_leader == 0) {
		root->reset(open(info.ei_root, O_PATH | O_DIRECTORY | O_CLOEXEC));
		return static_cast<bool>(*root);
	}
	EnclaveLeader leader;
	if (enclave_open_leader(&info, &leader) != 0 || enclave_same_tree(info.ei_leader, pid) != 0)
		return false;
	if (leader.confined)
		*root = std::move(leader.root);
	else
		root->reset(open(info.ei_root, O_PATH | O_DIRECTORY | O_CLOEXEC));
	return static_cast<bool>(*root);
}

// The enclave that this thread named last. Who asks for a state mostly has the name from there.
thread_local enclaveid_t named_last = ENCLAVE_ID_GLOBAL;

// Finds a record by its name, which no two have: in one look at that of the enclave named last, or in a listing.
int find_named(const char *name, enclave_info_t *info)
{
	if (named_last != ENCLAVE_ID_GLOBAL && enclave_registry_get(named_last, info) == 0 &&
	    strcmp(info->ei_name, name) == 0)
		return 0;
	return enclave_registry_find(name, info);
}

} // namespace

ssize_t enclave_getattr(enclaveid_t id, int attribute, void *buffer, size_t size)
{
	CancellationWaits cancellation;
	if (attribute != ENCLAVE_ATTR_ROOT)
		return fail_with(EINVAL);
	if (id == ENCLAVE_ID_GLOBAL || id == getenclaveid())
		return give_own_root(buffer, size);
	enclave_info_t info;
	if (int error = enclave_find_record(id, &info))
		return fail_with(error);
	return give(info.ei_root, buffer, size);
}

ssize_t getenclavenamebyid(enclaveid_t id, char *buffer, size_t length)
{
	CancellationWaits cancellation;
	if (id == ENCLAVE_ID_GLOBAL)
		return give("global", buffer, length);
	enclave_info_t info;
	if (int error = enclave_find_record(id, &info))
		return fail_with(error);
	named_last = id;
	return give(info.ei_name, buffer, length);
}

int enclave_get_state(const char *name, enclave_state_t *state)
{
	CancellationWaits cancellation;
	if (name == nullptr || state == nullptr)
		return fail_with(EINVAL);
	if (strcmp(name, "global") == 0) {
		*state = ENCLAVE_STATE_RUNNING;
		return 0;
	}
	enclave_info_t info;
	int error = find_named(name, &info);
	if (error != 0)
		return fail_with(error == ENOENT || error == ENOTDIR ? EINVAL : error == EACCES ? EPERM : error);
	*state = info.ei_state;
	return 0;
}

int _enclave_open(const char *path)
{
	CancellationWaits cancellation;
	if (path == nullptr)
		return fail_with(EINVAL);
	enclave_info_t *infos = nullptr;
	size_t count = 0;
	int error = enclave_registry_list(&infos, &count);
	// Not knowing the roots, nobody knows what a link would lead to.
	if (error != 0)
		return fail_with(error);
	Heap<enclave_info_t> owner(infos);
	const RootOf root(path, infos, count);
	if (root.text[0] != '\0')
		return open_inside(root.text, path + strlen(root.text));
	return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

int _enclave_open_in(enclaveid_t id, const char *path)
{
	CancellationWaits cancellation;
	char root[PATH_MAX];
	if (path == nullptr)
		return fail_with(EINVAL);
	if (enclave_getattr(id, ENCLAVE_ATTR_ROOT, root, sizeof(root)) < 0)
		return -1;
	size_t length = strlen(root);
	if (strncmp(path, root, length) != 0 || path[length] != '/')
		return fail_with(EINVAL);
	return open_inside(root, path + length);
}

int _enclave_has_process(enclaveid_t id, pid_t pid)
{
	CancellationWaits cancellation;
	Fd root, of_process;
	enclave_info_t info;
	if (pid <= 0 || enclave_open_process_root(pid, &of_process) != 0)
		return 0;
	if (id == ENCLAVE_ID_GLOBAL || id == getenclaveid()) {
		root.reset(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
		return root && same_directory(root.get(), of_process.get());
	}
	return enclave_find_record(id, &info) == 0 && open_root_for(info, pid, &root) &&
	       same_directory(root.get(), of_process.get());
}

int _enclave_hold(enclaveid_t id, int seconds)
{
	CancellationWaits cancellation;
	if (id < 1 || id > ENCLAVE_ID_MAX)
		return fail_with(EINVAL);
	enclave_info_t info;
	if (int error = enclave_find_record(id, &info))
		return fail_with(error);
	Fd dir, locks;
	int error = enclave_open_registry(&dir);
	if (error == 0)
		error = enclave_open_locks(dir.get(), &locks);
	if (error != 0)
		return fail_with(error == ENOENT || error == ENOTDIR ? EINVAL : error == EACCES ? EPERM : error);
	for (const Deadline end = Deadline::in(seconds * second_ns);;) {
		error = enclave_lock(locks.get(), id, F_OFD_SETLK);
		if (error == 0)
			return locks.release();
		if (error != EAGAIN || end.has_passed())
			return fail_with(error);
		sleep_ns(20 * millisecond_ns);
	}
}
