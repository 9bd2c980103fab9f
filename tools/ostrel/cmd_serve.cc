// ostrel serve: lets other processes into a database, through a hatch, each as far as its rights go.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <linux/capability.h>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <base/guards.h>
#include <fmt/format.h>

#include "base/clock.h"
#include "command.h"
#include "database.h"
#include "deferred.h"
#include "document.h"
#include "hatch.h"
#include "log_messages.h"
#include "readiness.h"
#include "shared/rights.h"
#include "stores.h"
#include "text.h"
#include "update_threads.h"

namespace {

// The owner that the library gives to the directory of a hatch.
constexpr uid_t hatch_owner = 16;

// Directories that many programs share and no server owns. They are compared by device and inode, not by path.
constexpr const char *system_directories[] = {"/", "/bin", "/boot", "/dev", "/dev/shm", "/etc", "/etc/meridon", "/home",
    "/lib", "/lib64", "/media", "/mnt", "/opt", "/proc", "/root", "/run", "/run/enclaves", "/run/lock", "/run/systemd",
    "/run/user", "/sbin", "/srv", "/sys", "/tmp", "/usr", "/usr/bin", "/usr/lib", "/usr/local", "/usr/sbin",
    "/usr/share", "/var", "/var/cache", "/var/lib", "/var/log", "/var/spool", "/var/tmp"};

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	app.add_option("PATH", options.other, "The path of the hatch, in a directory of the server's own")->required();
	app.add_option("--read-auth", options.read_auth, "The right that readers need; '' lets everybody read")
	    ->capture_default_str();
	app.add_option("--write-auth", options.write_auth, "The right that updates need; '' lets everybody update")
	    ->capture_default_str();
}

// ---- Before anything is touched ----

bool may_change_owners()
{
	__user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
	__user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
	return syscall(SYS_capget, &head, sets) == 0 && (sets[0].effective & (1U << CAP_CHOWN)) != 0;
}

void check_right(const std::string &name, const char *option)
{
	static constexpr char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
	if (name.size() > 1023 || name.find_first_not_of(letters) != std::string::npos)
		throw Failure(Exit::usage, fmt::format("'{}' isn't the name of a right", name.substr(0, 40)))
		    .next(fmt::format(
			"{} takes one name of letters, digits, '.', '-' and '_', such as ostrel.read", option));
}

std::string directory_of(const std::string &path)
{
	std::string copy = path;
	return dirname(copy.data());
}

bool is_system_directory(const struct stat &status)
{
	return std::any_of(std::begin(system_directories), std::end(system_directories), [&](const char *path) {
		struct stat other;
		return stat(path, &other) == 0 && other.st_dev == status.st_dev && other.st_ino == status.st_ino;
	});
}

// Serving changes the directory's mode and owner, so it has to be the server's own.
void check_directory(const std::string &path)
{
	std::string directory = directory_of(path);
	struct stat status;
	if (stat(directory.c_str(), &status) != 0) {
		if (errno == ENOENT && stat(directory_of(directory).c_str(), &status) == 0 && S_ISDIR(status.st_mode))
			return;
		throw Failure(Exit::not_found, fmt::format("there is no directory {}", directory))
		    .in(path)
		    .next("make the directory above it; the last level is made by the server");
	}
	const char *why = nullptr;
	if (!S_ISDIR(status.st_mode))
		why = "isn't a directory";
	else if (is_system_directory(status))
		why = "is a directory of the system's";
	else if (status.st_uid != 0 && status.st_uid != geteuid() && status.st_uid != hatch_owner)
		why = "belongs to another user";
	else if ((status.st_mode & S_IWOTH) != 0)
		why = "can be written by everybody";
	if (why != nullptr)
		throw Failure(
		    Exit::invalid, fmt::format("{} {}: serving would change its mode and owner", directory, why))
		    .in(path)
		    .next(fmt::format(
			"use a directory of the server's own, such as /run/ostrel; it is made if it is missing"));
}

// Reuses an empty file, or what an earlier hatch left; everything else belongs to somebody.
void check_place(const std::string &path)
{
	static constexpr char mark[] = "MERIDON-HATCH ";
	struct stat status;
	if (lstat(path.c_str(), &status) != 0)
		return;
	char begin[sizeof(mark) - 1] = {};
	bool ours = false;
	if (S_ISREG(status.st_mode) && status.st_nlink == 1) {
		Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
		ssize_t length = file ? read(file.get(), begin, sizeof(begin)) : -1;
		ours = length == 0 || (length == sizeof(begin) && std::memcmp(begin, mark, sizeof(begin)) == 0);
	}
	if (!ours)
		throw Failure(Exit::exists, "something that isn't a hatch is there")
		    .in(path)
		    .next("give another path, or move it away; a hatch's path is not the database's");
	if (std::optional<pid_t> server = hatch_server(path))
		throw Failure(Exit::exists,
		    *server == 0 ? "another server serves there" : fmt::format("process {} serves there", *server))
		    .in(path)
		    .next("end that server first, or give another path");
}

// Each client takes a descriptor.
void raise_descriptor_limit()
{
	rlimit limit;
	if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
		return;
	limit.rlim_cur = limit.rlim_max;
	if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
		warn(Failure(
		    Exit::done, fmt::format("the limit of descriptors stays as it is: {}", std::strerror(errno))));
}

// ---- Serving ----

// Blocks the signals that end the server until it asks for one. Made before there is a second thread.
class EndSignals {
public:
	EndSignals()
	{
		(void) sigemptyset(&set_);
		for (int number : {SIGTERM, SIGINT, SIGHUP})
			(void) sigaddset(&set_, number);
		(void) pthread_sigmask(SIG_BLOCK, &set_, nullptr);
		(void) std::signal(SIGPIPE, SIG_IGN); // a message nobody reads doesn't end a server
	}

	void wait() const
	{
		int number = 0;
		while (sigwait(&set_, &number) != 0)
			continue;
	}
	// Whether one comes within the time.
	bool comes_within(std::chrono::milliseconds time) const
	{
		const timespec limit = {static_cast<time_t>(time.count() / 1000), (time.count() % 1000) * 1'000'000};
		return sigtimedwait(&set_, nullptr, &limit) > 0;
	}

private:
	sigset_t set_;
};

// Serves a database through a hatch for as long as it lives.
class Server {
public:
	Server(const Database &database, const Options &options) : path_(options.other)
	{
		ostrel_error_t result = ostrel_hatchserver_create(
		    path_.c_str(), options.read_auth.c_str(), options.write_auth.c_str(), database.handle(), &hatch_);
		if (result == OSTREL_SUCCESS)
			return;
		if (result == OSTREL_EPERM)
			throw Failure(Exit::permission, "can't be served: permission denied")
			    .in(path_)
			    .next("serving changes the owner of the directory: that needs root");
		throw Failure(exit_of(result), fmt::format("can't be served: {}", ostrel_strerror(result)))
		    .in(path_)
		    .next(fmt::format(
			"look at the directory with ls -ld {}, and at its file system", directory_of(path_)));
	}
	~Server() { ostrel_hatchserver_destroy(path_.c_str(), hatch_); }
	Server(const Server &) = delete;
	Server &operator=(const Server &) = delete;

private:
	std::string path_;
	int hatch_ = -1;
};

std::string who_may(const char *what, const std::string &right)
{
	return right.empty() ? fmt::format("everybody may {}", what)
			     : fmt::format("to {} needs the right {}", what, right);
}

void announce(const Database &database, const Options &options)
{
	if (options.json) {
		write_json(Json{{"serving", text_to_json(database.label())}, {"path", text_to_json(options.other)},
		    {"read_auth", options.read_auth}, {"write_auth", options.write_auth}, {"pid", getpid()}});
		(void) std::fflush(stdout);
		return;
	}
	fmt::print(stderr, "ostrel: serving {} at {}: {}, {}\n", database.label(), options.other,
	    who_may("read", options.read_auth), who_may("update", options.write_auth));
}

// ---- The end ----

// The updates that were deferred when the server ended, and what became of them.
class Ending {
public:
	explicit Ending(UpdateWatch &watch) : watch_(watch) { look(); }

	// Whether any of them goes on.
	bool look()
	{
		const std::vector<pid_t> running = update_threads();
		threads_.insert(running.begin(), running.end()); // one listing may have passed over some
		return !running.empty();
	}

	size_t count() const { return threads_.size(); }

	// Reports each by its name, if that is known. `given_up` is how many the library gave up.
	Exit tell(const Database &database, const Options &options, size_t given_up)
	{
		Json named = Json::array();
		size_t landed = 0, refused = 0, left = 0;
		for (pid_t thread : threads_) {
			const bool runs = is_update_thread(thread);
			const std::optional<UpdateWatch::Attempt> last = watch_.last(thread);
			const bool has_landed = last && last->landed;
			left += runs && !has_landed ? 1 : 0;
			if (!last)
				continue;
			landed += has_landed ? 1 : 0;
			refused += !has_landed && !runs ? 1 : 0;
			const Outcome &outcome = outcomes[has_landed ? 0 : runs ? 2 : 1];
			named.push_back({{"object", visible(last->object)}, {"operation", last->operation},
			    {"outcome", outcome.word}});
			warn(Failure(has_landed ? Exit::done : Exit::deferred,
			    fmt::format("the deferred {} of {} {}", last->operation, last->object, outcome.sentence))
				 .in(database.label()));
		}
		const size_t lost = std::max(refused, given_up) + left;
		const size_t ended = count() - std::min(count(), lost);
		warn(Failure(lost == 0 ? Exit::done : Exit::deferred,
		    fmt::format("of {} deferred updates {} have {}, {} were refused or given up and {} are left behind",
			count(), ended, ended == landed ? "landed" : "ended", lost - left, left))
			 .in(database.label()));
		if (options.json)
			write_json(Json{{"deferred", count()}, {"left_behind", left}, {"updates", named}});
		return lost == 0 ? Exit::done : Exit::deferred;
	}

private:
	struct Outcome {
		const char *word;
		const char *sentence;
	};
	static constexpr Outcome outcomes[] = {
	    {"landed", "has landed"}, {"refused", "was refused, or given up"}, {"left_behind", "is left behind"}};

	UpdateWatch &watch_;
	std::set<pid_t> threads_;
};

// Ends the server once its hatch has gone. Waits for the updates that the store has deferred, until another signal comes.
// The handle isn't closed under a running update: a server that has to leave some behind exits without closing it.
Exit end_with_updates(const Database &database, const Options &options, UpdateWatch &watch, const EndSignals &signals)
{
	Ending ending(watch);
	if (ending.count() == 0)
		return Exit::done;
	warn(Failure(
	    Exit::deferred, fmt::format("{} updates are deferred: the store can't be written now; waiting up to {} s",
				ending.count(), longest_deferral.count()))
		 .in(database.label()));
	tell_manager(
	    fmt::format("EXTEND_TIMEOUT_USEC={}", std::chrono::microseconds(longest_deferral).count()).c_str());
	const std::vector<std::string> said = log_messages([&] {
		const Deadline end = Deadline::in(longest_deferral.count() * second_ns);
		while (ending.look() && !end.has_passed() && !signals.comes_within(std::chrono::milliseconds(50)))
			continue;
	});
	for (const std::string &message : said)
		warn(Failure(Exit::deferred, message).in(database.label()));
	const Exit code = ending.tell(database, options, said.size());
	if (own_deferred_updates() > 0) {
		(void) std::fflush(nullptr);
		_exit(exit_code(code));
	}
	return code;
}

Exit run(const Options &options)
{
	check_right(options.read_auth, "--read-auth");
	check_right(options.write_auth, "--write-auth");
	if (!may_change_owners())
		throw Failure(Exit::permission, "serving needs root: it changes the owner of the directory")
		    .in(options.other)
		    .next("run it as root, or by the unit ostrel-serve@.service");
	require_servable(options.database);
	const std::unique_ptr<Database> opened = open_database(options);
	const Database &database = *opened;
	check_directory(options.other);
	check_place(options.other);
	raise_descriptor_limit();

	EndSignals signals;
	UpdateWatch watch;
	{
		Server server(database, options);
		announce(database, options);
		const std::string fault = rights_fault(geteuid());
		if (!fault.empty() && !(options.read_auth.empty() && options.write_auth.empty()))
			warn(Failure(Exit::permission, "who holds which right" + fault));
		tell_manager("READY=1");
		signals.wait();
		tell_manager("STOPPING=1");
	}
	return end_with_updates(database, options, watch, signals);
}

} // namespace

const Command serve_command = {
    {"serve", "Serve a database to other processes, through a hatch", {}, nullptr,
	"Serves in the foreground until SIGTERM, SIGINT or SIGHUP. Others reach the database as hatch:PATH.\n"
	"Root grants rights in /etc/meridon/rights: lines `user: right, right` or `%group: right`.\n"
	"To another file, level or enclave a request gets with the right ostrel.elsewhere only.\n"
	"The directory of PATH is made if it is missing; it gets mode 0755 and the owner 16:65."},
    declare, run};
