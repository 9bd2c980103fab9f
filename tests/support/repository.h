// A repository daemon of a test's own, as a real process, and a client of it.
#ifndef TESTS_REPOSITORY_H
#define TESTS_REPOSITORY_H

#include <csignal>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

#include <meridon/rpy.h>

#include "base/guards.h"
#include "child.h"
#include "scratch.h"

// Runs a program to its end, and gives its exit status; -1 if it died. What it prints goes to `output`, if given.
int run_program(const std::vector<std::string> &words, const std::vector<std::string> &environment = {},
    std::string *output = nullptr);

// The daemon's program, and its exit status or that of its first process, once it serves.
extern const char *const daemon_program;
int start_daemon(const std::string &hatch, const std::string &file, std::string *output = nullptr,
    const std::vector<std::string> &environment = {});

class Repository {
public:
	explicit Repository(const char *parent = "/tmp") : place(parent) {}
	Repository(const Repository &) = delete;
	Repository &operator=(const Repository &) = delete;
	~Repository() { kill(); }

	// Starts a daemon, and gives the status of its first process.
	int start(const std::string &hatch_name = "hatch", std::string *output = nullptr);
	// Each returns when it has gone.
	void stop() { end(SIGTERM); }
	void kill() { end(SIGKILL); }
	// Stops it with SIGSTOP; returns when all its threads stand still. It goes on after go_on().
	void freeze();
	void go_on() { (void) ::kill(pid_, SIGCONT); }
	pid_t pid() const { return pid_; }

	std::string hatch(const std::string &name = "hatch") const { return place.path(name); }
	std::string file() const { return directory() + "/repository.db"; }
	std::string directory() const { return files.empty() ? place.directory() : files; }

	Scratch place;
	std::string files; // where the file lies, if it isn't `place`
	std::vector<std::string> environment;

private:
	void end(int signal);
	pid_t pid_ = 0;
};

// The process that serves a hatch; 0 if there is none.
pid_t server_of(const std::string &hatch);
bool is_gone(pid_t pid);

// A process of another user with a lock on a file that anybody could open once. Its pid() is 0 if the lock can't be had.
StayingChild lock_as_stranger(const std::string &file, const std::function<int(int fd)> &lock);

using Pg = Handle<rpy_propertygroup_t, rpy_pg_destroy>;
using Iter = Handle<rpy_iter_t, rpy_iter_destroy>;
using Prop = Handle<rpy_property_t, rpy_property_destroy>;
using Val = Handle<rpy_value_t, rpy_value_destroy>;
using Tx = Handle<rpy_transaction_t, rpy_transaction_destroy>;
using Snap = Handle<rpy_snapshot_t, rpy_snapshot_destroy>;

// What a group holds: the values of each property as texts.
using Contents = std::map<std::string, std::vector<std::string>>;

// A bound handle, and the instance "net/link:default", made if it isn't there.
class RepositoryClient {
public:
	RepositoryClient() = default;
	explicit RepositoryClient(const std::string &hatch) { (void) bind(hatch); }
	RepositoryClient(const RepositoryClient &) = delete;
	RepositoryClient &operator=(const RepositoryClient &) = delete;
	~RepositoryClient();

	rpy_error_t bind(const std::string &hatch); // RPY_ERROR_NONE if it went well
	rpy_error_t find();                         // the locator, without making it

	Pg group() { return Pg(rpy_pg_create(handle)); }
	// Makes a group of the instance. Its error.
	rpy_error_t add(const std::string &name, const std::string &type = "t", uint32_t flags = 0);
	// Replaces what a group of the instance holds: count properties where the texts are numbers, else strings. 1, 0, -1.
	int write(const std::string &name, const Contents &contents);
	int write(rpy_propertygroup_t *pg, const Contents &contents);
	// What a group of the instance holds; empty with rpy_error() on failure.
	Contents read(const std::string &name);
	Contents contents(rpy_propertygroup_t *pg);
	std::vector<std::string> names(rpy_iter_t *iter);

	rpy_handle_t *handle = nullptr;
	rpy_scope_t *scope = nullptr;
	rpy_service_t *service = nullptr;
	rpy_instance_t *instance = nullptr;

private:
	bool put(rpy_transaction_t *tx, rpy_propertygroup_t *pg, const std::string &name,
	    const std::vector<std::string> &texts);
};

// A repository, and a client that is bound to its daemon once that is started.
class RepositoryTest : public testing::Test {
protected:
	// Ends the daemon, if there is one, and starts the next.
	void start()
	{
		daemon.stop();
		ASSERT_EQ(daemon.start("hatch", &said), 0) << said;
		ASSERT_EQ(client.bind(daemon.hatch()), RPY_ERROR_NONE);
	}

	Repository daemon;
	RepositoryClient client;
	std::string said;
};

// A file system in memory, below a directory of a test's own. Without the privilege to mount there is none.
struct MemoryMount {
	explicit MemoryMount(const Scratch &place, const char *options = "size=16m");
	MemoryMount(const MemoryMount &) = delete;
	MemoryMount &operator=(const MemoryMount &) = delete;
	~MemoryMount();
	bool set(unsigned long flags, const char *options) const;

	const std::string path;
	const bool good;
};

#endif
