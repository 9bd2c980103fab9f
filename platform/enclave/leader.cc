// The leader of an enclave: a process that lives in it, known by its id and its start time.
#include "enclave/enclave_impl.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "base/files.h"

namespace {

using std::string_view;

// "/proc/<pid>/<name>". Both parts are short.
struct ProcPath {
	char text[64];

	ProcPath(pid_t pid, const char *name)
	{
		memcpy(text, "/proc/", 6);
		size_t len = 6 + meridon_print_number(static_cast<uint64_t>(pid), text + 6);
		text[len++] = '/';
		strcpy(text + len, name);
	}
};

// A process that has ended takes its directory below /proc with it.
int proc_error(int error)
{
	if (error == ENOENT || error == ENOTDIR)
		return ESRCH;
	return error == EACCES ? EPERM : error;
}

// Field `number` of a stat line, counted from 1. The second is the program's name in brackets, which may hold blanks
// and brackets itself, so the count begins after the last closing one.
string_view stat_field(string_view line, int number)
{
	size_t at = line.rfind(')');
	if (at == string_view::npos)
		return {};
	line.remove_prefix(at + 1);
	string_view field;
	for (int i = 2; i < number; i++) {
		size_t begin = line.find_first_not_of(" \n");
		if (begin == string_view::npos)
			return {};
		line.remove_prefix(begin);
		size_t end = line.find_first_of(" \n");
		field = line.substr(0, end);
		line.remove_prefix(field.size());
	}
	return field;
}

// The bounding set in the text of a process's status.
int parse_bounding_set(string_view status, uint64_t *capabilities)
{
	constexpr string_view key = "\nCapBnd:\t";
	size_t at = status.find(key);
	if (at == string_view::npos)
		return EBADMSG;
	status.remove_prefix(at + key.size());
	auto result = std::from_chars(status.data(), status.data() + status.size(), *capabilities, 16);
	return result.ec == std::errc() ? 0 : EBADMSG;
}

struct Namespace {
	const char *name;
	int flag;
};
constexpr Namespace namespaces[] = {
    {"ns/user", CLONE_NEWUSER},
    {"ns/mnt", CLONE_NEWNS},
    {"ns/pid", CLONE_NEWPID},
    {"ns/net", CLONE_NEWNET},
    {"ns/uts", CLONE_NEWUTS},
    {"ns/ipc", CLONE_NEWIPC},
    {"ns/cgroup", CLONE_NEWCGROUP},
};

bool same_file(const struct stat &a, const struct stat &b)
{
	return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Which namespaces of the process aren't this process's own. Entering one's own is refused for some of them.
int compare_namespaces(pid_t pid, int *flags)
{
	for (const Namespace &space : namespaces) {
		struct stat own, other;
		if (stat(ProcPath(pid, space.name).text, &other) == -1)
			return proc_error(errno);
		if (stat(ProcPath(getpid(), space.name).text, &own) == -1)
			return proc_error(errno);
		if (!same_file(own, other))
			*flags |= space.flag;
	}
	return 0;
}

} // namespace

int enclave_leader_start(pid_t pid, uint64_t *startp)
{
	CancellationWaits cancellation;
	if (pid <= 0 || startp == nullptr)
		return EINVAL;
	char line[1024];
	ssize_t len = meridon_read_file(ProcPath(pid, "stat").text, line, sizeof line);
	if (len == -1) {
		struct stat st;
		if (errno == ENOENT && stat("/proc/self", &st) == -1)
			return ENOTSUP;
		return proc_error(errno);
	}
	string_view text(line, static_cast<size_t>(len));
	// A zombie has no namespaces any more.
	string_view run_state = stat_field(text, 3);
	if (run_state == "Z" || run_state == "X")
		return ESRCH;
	return meridon_parse_number(stat_field(text, 22), UINT64_MAX, startp) ? 0 : EBADMSG;
}

int enclave_leader_alive(const enclave_info_t *info)
{
	CancellationWaits cancellation;
	uint64_t start = 0;
	return info != nullptr && info->ei_leader > 0 && enclave_leader_start(info->ei_leader, &start) == 0 &&
	       start == info->ei_leader_start;
}

int enclave_same_tree(pid_t a, pid_t b)
{
	for (const char *name : {"ns/user", "ns/mnt"}) {
		struct stat of_a, of_b;
		if (stat(ProcPath(a, name).text, &of_a) == -1 || stat(ProcPath(b, name).text, &of_b) == -1)
			return proc_error(errno);
		if (!same_file(of_a, of_b))
			return ESRCH;
	}
	return 0;
}

int enclave_open_process_root(pid_t pid, Fd *root)
{
	root->reset(open(ProcPath(pid, "root").text, O_PATH | O_DIRECTORY | O_CLOEXEC));
	return *root ? 0 : proc_error(errno);
}

int enclave_open_leader(const enclave_info_t *info, EnclaveLeader *leader)
{
	leader->process.reset(static_cast<int>(syscall(SYS_pidfd_open, info->ei_leader, 0)));
	if (!leader->process)
		return errno;
	// Looked at after the process is held: from here on its id stays its own.
	uint64_t start = 0;
	if (int error = enclave_leader_start(info->ei_leader, &start))
		return error;
	if (start != info->ei_leader_start)
		return ESRCH;
	if (int error = compare_namespaces(info->ei_leader, &leader->namespaces))
		return error;
	if (int error = enclave_open_process_root(info->ei_leader, &leader->root))
		return error;
	struct stat own, other;
	if (fstat(leader->root.get(), &other) == -1 || stat("/", &own) == -1)
		return proc_error(errno);
	leader->confined = !same_file(own, other);
	return 0;
}

int enclave_read_bounding_set(const enclave_info_t &info, uint64_t *capabilities)
{
	char text[16384];
	ssize_t len = meridon_read_file(ProcPath(info.ei_leader, "status").text, text, sizeof text);
	if (len == -1)
		return proc_error(errno);
	// Looked for after its status was read: what was read is then its own.
	if (!enclave_leader_alive(&info))
		return ESRCH;
	return parse_bounding_set({text, static_cast<size_t>(len)}, capabilities);
}
