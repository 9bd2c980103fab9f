// Enclaves for tests.
#include "test_enclave.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

// A broken fixture ends the program: what a test would say without it is worth nothing.
static void must(bool ok, const char *what)
{
	if (ok)
		return;
	perror(what);
	abort();
}

const char *why_no_enclaves(TestEnclave::Kind kind)
{
	if (geteuid() != 0)
		return "needs root: entering an enclave changes the root directory";
	if (in_child([] { return chroot("/") == 0 ? 0 : 1; }) != 0)
		return "needs the capability to change the root directory";
	if (kind == TestEnclave::RootOnly)
		return nullptr;
#ifdef __SANITIZE_THREAD__
	return "ThreadSanitizer runs a thread of its own in a forked child, which then may not join namespaces";
#endif
	if (in_child([] {
		    return unshare(CLONE_NEWNS) == 0 && mount("t", "/", "", MS_REC | MS_PRIVATE, "") == 0 ? 0 : 1;
	    }) != 0)
		return "needs mount namespaces";
	if (kind == TestEnclave::UserNamespace && in_child([] { return unshare(CLONE_NEWUSER) == 0 ? 0 : 1; }) != 0)
		return "needs user namespaces";
	return nullptr;
}

TestEnclave::TestEnclave(Kind kind, enclaveid_t id) : id_(id)
{
	must(chmod(prefix().c_str(), 0755) == 0, "chmod");
	fs::create_directories(root_ + "/private");
	if (kind == UserNamespace)
		for (const std::string &path : {root_, root_ + "/private"})
			must(chown(path.c_str(), 100000, 100000) == 0, "chown");
	must(setenv("MERIDON_ROOT", prefix().c_str(), 1) == 0, "setenv");
	if (kind != RootOnly)
		start_leader(kind);

	enclave_info_t info = {};
	info.ei_id = id_;
	info.ei_state = ENCLAVE_STATE_RUNNING;
	strcpy(info.ei_name, "testing");
	must(root_.size() <= ENCLAVE_ROOT_MAX, "length of the root's path");
	strcpy(info.ei_root, root_.c_str());
	info.ei_leader = leader_;
	if (leader_ != 0)
		must((errno = enclave_leader_start(leader_, &info.ei_leader_start)) == 0, "start of the leader");
	must((errno = enclave_registry_add(&info)) == 0, "enclave_registry_add");
}

TestEnclave::~TestEnclave()
{
	kill_leader();
	unsetenv("MERIDON_ROOT");
}

// What a leader does: it makes its namespaces and waits for its end.
static void become_leader(TestEnclave::Kind kind, const std::string &root, int ready, int go)
{
	prctl(PR_SET_PDEATHSIG, SIGKILL);
	int namespaces = CLONE_NEWNS | (kind == TestEnclave::UserNamespace ? CLONE_NEWUSER : 0);
	must(unshare(namespaces) == 0, "unshare");
	// The parent writes the maps of the ids meanwhile.
	char byte = 0;
	must(write(ready, &byte, 1) == 1 && read(go, &byte, 1) == 1, "pipe");
	if (kind == TestEnclave::UserNamespace)
		must(syscall(SYS_setresgid, 0, 0, 0) == 0 && syscall(SYS_setresuid, 0, 0, 0) == 0, "setresuid");
	must(mount("none", "/", "", MS_REC | MS_PRIVATE, "") == 0, "private mounts");
	must(mount(root.c_str(), root.c_str(), "", MS_BIND | MS_REC, "") == 0, "bind mount");
	must(mount("none", (root + "/private").c_str(), "tmpfs", 0, "mode=755") == 0, "tmpfs");
	if (kind != TestEnclave::LeaderInTree) {
		must(chdir(root.c_str()) == 0, "chdir");
		must(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
		must(umount2(".", MNT_DETACH) == 0, "umount");
	}
	must(write(ready, &byte, 1) == 1, "pipe");
	for (;;)
		pause();
}

static void write_text(const std::string &path, const std::string &text)
{
	std::ofstream out(path, std::ios::binary | std::ios::trunc);
	out << text;
	out.close();
	must(out.good(), path.c_str());
}

void TestEnclave::start_leader(Kind kind)
{
	int ready[2], go[2];
	must(pipe2(ready, O_CLOEXEC) == 0 && pipe2(go, O_CLOEXEC) == 0, "pipe");
	leader_ = fork();
	must(leader_ >= 0, "fork");
	if (leader_ == 0)
		become_leader(kind, root_, ready[1], go[0]);
	close(ready[1]);
	char byte = 0;
	must(::read(ready[0], &byte, 1) == 1, "leader");
	if (kind == UserNamespace) {
		std::string proc = "/proc/" + std::to_string(leader_);
		write_text(proc + "/uid_map", "0 100000 65536\n");
		write_text(proc + "/gid_map", "0 100000 65536\n");
	}
	must(::write(go[1], &byte, 1) == 1, "pipe");
	must(::read(ready[0], &byte, 1) == 1, "leader");
	for (int fd : {ready[0], go[0], go[1]})
		close(fd);
}

void TestEnclave::kill_leader()
{
	if (leader_ == 0)
		return;
	kill(leader_, SIGKILL);
	(void) waitpid(leader_, nullptr, 0); // ECHILD in a process that ignores SIGCHLD, once it has ended
	leader_ = 0;
}

void TestEnclave::write(const std::string &path, const std::string &text) const
{
	write_text(host_path(path), text);
}

std::string TestEnclave::read(const std::string &path) const
{
	return fs::exists(host_path(path)) ? file_text(host_path(path)) : "<none>";
}

void TestEnclave::set_state(enclave_state_t state)
{
	enclave_info_t info;
	must((errno = enclave_registry_get(id_, &info)) == 0, "enclave_registry_get");
	info.ei_state = state;
	must((errno = enclave_registry_replace(&info)) == 0, "enclave_registry_replace");
}

void TestEnclave::write_record(const std::string &text) const
{
	write_text(prefix() + "/run/enclaves/" + std::to_string(id_), text);
}
