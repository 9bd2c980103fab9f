// ostrel watch: what changes in a database, when it changes.
//
// Events are printed as they come, or are the input of a command that runs after each state. While it runs, the watch isn't
// asked: it puts what changes meanwhile together by itself. So two commands never run at once, and what came while one ran makes
// one more run.
//
// The token in the file of --token stands for what was handed on: it is kept after that was printed, or after the command has
// ended well. So a run that is killed, and a command that fails, have the next run begin with what it hasn't seen.
//
// Divisions: the command; the receivers of events; the token's file; watching.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_set>

#include <base/guards.h>
#include <fmt/format.h>
#include <libostrelx.h>

#include "command.h"
#include "database.h"
#include "document.h"
#include "text.h"
#include "word.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	declare_database(app, options);
	declare_identifiers(app, options);
	app.add_flag("-x,--exact", options.exact, "Select by all identifiers, not by some of them");
	app.add_flag("-t,--types", options.types, "Show the types of the properties");
	app.add_flag("--once", options.once, "End at the first state");
	app.add_option("--exec", options.exec, "Run this after each state, by a shell, with the events as its input")
	    ->type_name("CMD");
	app.add_option("--token", options.token, "Keep in this file what was handed on, and go on from there")
	    ->type_name("FILE");
}

Failure system_failure(const char *what)
{
	const int error = errno;
	return Failure(exit_of_errno(error), fmt::format("{}: {}", what, std::strerror(error)));
}

// ---- The command ----

// The end of a run that may have been asked for. Blocks the signals as long as it lives.
class EndSignals {
public:
	EndSignals()
	{
		sigset_t signals;
		(void) sigemptyset(&signals);
		for (int number : {SIGTERM, SIGINT, SIGHUP})
			(void) sigaddset(&signals, number);
		(void) pthread_sigmask(SIG_BLOCK, &signals, &before_);
		fd_.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
		if (!fd_)
			throw system_failure("signals can't be waited for");
	}
	EndSignals(const EndSignals &) = delete;
	EndSignals &operator=(const EndSignals &) = delete;
	~EndSignals() { (void) pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

	int fd() const { return fd_.get(); }
	const sigset_t &mask_before() const { return before_; }
	// The signal that came; 0 if none did.
	int take() const
	{
		signalfd_siginfo info;
		return read(fd_.get(), &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
	}

private:
	sigset_t before_;
	Fd fd_;
};

// A shell that runs the command, in a process group of its own.
class Run {
public:
	Run(const std::string &command, int input, const sigset_t &mask)
	{
		posix_spawn_file_actions_t actions;
		posix_spawnattr_t attributes;
		(void) posix_spawn_file_actions_init(&actions);
		(void) posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
		(void) posix_spawnattr_init(&attributes);
		(void) posix_spawnattr_setsigmask(&attributes, &mask);
		(void) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
		std::string words[] = {"sh", "-c", command};
		char *const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
		errno = posix_spawn(&pid_, "/bin/sh", &actions, &attributes, arguments, environ);
		const int error = errno;
		(void) posix_spawnattr_destroy(&attributes);
		(void) posix_spawn_file_actions_destroy(&actions);
		errno = error;
		if (error != 0)
			throw system_failure("the command can't be started");
		end_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
		if (!end_)
			throw system_failure("the command's end can't be waited for");
	}
	Run(const Run &) = delete;
	Run &operator=(const Run &) = delete;

	int fd() const { return end_.get(); } // readable from its end on
	void pass_on(int signal) const { (void) kill(-pid_, signal); }
	// Waits for its end. Whether it ended well; else that is said.
	bool finish() const
	{
		int status = 0;
		while (waitpid(pid_, &status, 0) == -1 && errno == EINTR)
			continue;
		if (status == 0)
			return true;
		warn(Failure(Exit::failure,
		    WIFSIGNALED(status) ? fmt::format("the command was ended by the signal {}", WTERMSIG(status))
					: fmt::format("the command ended with {}", WEXITSTATUS(status))));
		return false;
	}

private:
	pid_t pid_ = 0;
	Fd end_;
};

// ---- The receivers of events ----

Json event_to_json(const ostrelx_event_t &event, const Failure *lost)
{
	static constexpr const char *words[] = {"", "reset", "put", "remove", "synced", "changed", "lost"};
	Json json = {{"event", words[event.kind]}};
	if (event.kind == OSTRELX_EVENT_PUT) {
		json.update(object_to_json(object_from_lists(event.idl, event.props)));
		json["version"] = event.version;
	} else if (event.kind == OSTRELX_EVENT_REMOVE) {
		json["id"] = id_to_json(object_from_lists(event.idl, nullptr).id);
	} else if (event.kind == OSTRELX_EVENT_SYNCED) {
		json["token"] = event.token;
	} else if (lost != nullptr) {
		json["code"] = exit_code(lost->code);
		json["name"] = exit_word(lost->code);
		json["message"] = visible(lost->message);
	}
	return json;
}

class Receiver {
public:
	virtual ~Receiver() = default;
	// `lost` says why, for an event of that kind.
	virtual void take(const ostrelx_event_t &event, const Failure *lost) = 0;
	// After a state: hands it on. A run of a command, if it takes one.
	virtual std::unique_ptr<Run> hand_on() = 0;
};

class Printer : public Receiver {
public:
	std::unique_ptr<Run> hand_on() override
	{
		if (std::fflush(stdout) != 0)
			throw system_failure("what was printed can't be written");
		return nullptr;
	}
};

class JsonPrinter final : public Printer {
	void take(const ostrelx_event_t &event, const Failure *lost) override
	{
		write_json(event_to_json(event, lost));
	}
};

// = what is there, + new, ~ changed, - gone, -- a state, ! something to know
class TextPrinter final : public Printer {
public:
	TextPrinter(const Options &options, bool resumes) : types_(options.types), says_reset_(resumes) {}

private:
	void take(const ostrelx_event_t &event, const Failure *lost) override
	{
		switch (event.kind) {
		case OSTRELX_EVENT_RESET:
			if (says_reset_)
				fmt::print("! reset: changes may have been missed; everything follows\n");
			says_reset_ = is_listing_ = true;
			known_.clear();
			break;
		case OSTRELX_EVENT_PUT:
			print_put(object_from_lists(event.idl, event.props));
			break;
		case OSTRELX_EVENT_REMOVE: {
			const Object gone = object_from_lists(event.idl, nullptr);
			known_.erase(id_text(gone.id));
			fmt::print("- {}\n", object_line(gone, types_));
			break;
		}
		case OSTRELX_EVENT_LOST:
			fmt::print("! lost: {}; waiting\n", visible(lost->message));
			break;
		default:
			fmt::print("--\n");
			is_listing_ = false;
		}
	}
	void print_put(const Object &object)
	{
		const bool is_new = known_.insert(id_text(object.id)).second;
		fmt::print("{} {}\n", is_listing_ ? '=' : is_new ? '+' : '~', object_line(object, types_));
	}

	bool types_;
	bool says_reset_;
	bool is_listing_ = false;
	std::unordered_set<std::string> known_;
};

// Gathers events in a file without a name, which a run then has as its input. What a RESET makes void doesn't stay.
class CommandRunner final : public Receiver {
public:
	CommandRunner(const Options &options, const EndSignals &signals) : command_(options.exec), signals_(signals) {}

private:
	void take(const ostrelx_event_t &event, const Failure *lost) override
	{
		if (event.kind == OSTRELX_EVENT_RESET)
			events_.reset();
		if (lost != nullptr)
			warn(*lost);
		if (!events_)
			events_.reset(fdopen(memfd_create("events", MFD_CLOEXEC), "w"));
		if (!events_)
			throw system_failure("the command's input can't be made");
		write_json(event_to_json(event, lost), events_.get());
	}
	std::unique_ptr<Run> hand_on() override
	{
		const int input = fileno(events_.get());
		if (std::fflush(events_.get()) != 0 || lseek(input, 0, SEEK_SET) != 0)
			throw system_failure("the command's input can't be made");
		auto run = std::make_unique<Run>(command_, input, signals_.mask_before());
		events_.reset();
		return run;
	}

	const std::string &command_;
	const EndSignals &signals_;
	Stream events_;
};

std::unique_ptr<Receiver> make_receiver(const Options &options, const EndSignals &signals, bool resumes)
{
	if (!options.exec.empty())
		return std::make_unique<CommandRunner>(options, signals);
	if (options.json)
		return std::make_unique<JsonPrinter>();
	return std::make_unique<TextPrinter>(options, resumes);
}

// ---- The token's file ----

// A file of one line. What holds anything else belongs to somebody, and would be replaced.
std::string read_token(const std::string &path)
{
	const Fd file(path.empty() ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	if (!file && (path.empty() || errno == ENOENT))
		return "";
	if (!file)
		throw system_failure("can't be read").in(path);
	char text[OSTRELX_TOKEN_SIZE + 1];
	const ssize_t size = read(file.get(), text, sizeof(text));
	if (size == 0)
		return "";
	const std::string line(text, size > 0 ? static_cast<size_t>(size) : 0);
	const size_t end = line.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789:");
	if (end + 1 != line.size() || line[end] != '\n' || line.size() > OSTRELX_TOKEN_SIZE)
		throw Failure(Exit::exists, "holds something else than the token of a watch")
		    .in(path)
		    .next("give another file, or remove this one: then the watch begins with everything");
	return line.substr(0, end);
}

// By a new file: what stands under its name, such as a link, is never followed.
void keep_token(const std::string &path, const std::string &token)
{
	const std::string made = path + ".new";
	const std::string line = token + "\n";
	(void) unlink(made.c_str());
	const Fd file(open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
	if (!file || write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
	    std::rename(made.c_str(), path.c_str()) != 0)
		throw system_failure("the token can't be kept").in(path);
}

// ---- Watching ----

class Watching {
public:
	Watching(Database &database, const Options &options)
	    : database_(database), options_(options), token_(read_token(options.token)),
	      receiver_(make_receiver(options, signals_, !token_.empty())),
	      watch_(database.watch(
		  parse_identifiers(options.words), options.exact, token_.empty() ? nullptr : token_.c_str()))
	{}

	Exit run()
	{
		while (!has_ended_) {
			if (run_)
				wait(run_->fd());
			else
				look();
		}
		return code_;
	}

private:
	void look()
	{
		ostrelx_event_t event;
		const ostrelx_error_t result = ostrelx_watch_next(watch_.get(), &event);
		if (result == OSTREL_SUCCESS)
			return take(event);
		if (result != OSTRELX_NOTHING)
			throw database_.failure_of(static_cast<ostrel_error_t>(result), "can't be watched");
		wait(ostrelx_watch_fd(watch_.get()));
	}

	void take(const ostrelx_event_t &event)
	{
		std::optional<Failure> lost;
		if (event.kind == OSTRELX_EVENT_LOST) {
			lost = database_.failure_of(static_cast<ostrel_error_t>(event.error), "can't be watched");
			if (options_.once)
				throw Failure(*lost);
		}
		receiver_->take(event, lost ? &*lost : nullptr);
		if (event.kind == OSTRELX_EVENT_SYNCED) {
			token_ = event.token;
			run_ = receiver_->hand_on();
			if (!run_)
				end_state(true);
		} else if (lost) {
			(void) std::fflush(stdout); // looked at with the next state
		}
	}

	void end_state(bool went_well)
	{
		if (went_well && !options_.token.empty())
			keep_token(options_.token, token_);
		if (options_.once)
			end(went_well ? Exit::done : Exit::failure);
		else if (signals_.take() != 0) // changes may come without an end
			end(Exit::done);
	}

	// Until the descriptor is readable, or the end is asked for.
	void wait(int fd)
	{
		// The reader of a pipe that has gone is an error there, whatever is asked for.
		struct pollfd set[] = {{fd, POLLIN, 0}, {signals_.fd(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
		while (poll(set, 3, -1) == -1 && errno == EINTR)
			continue;
		if (int signal = set[1].revents != 0 ? signals_.take() : 0)
			return run_ ? end_run(signal) : end(Exit::done);
		if (run_ && set[0].revents != 0) {
			const bool went_well = run_->finish();
			run_.reset();
			return end_state(went_well);
		}
		if (!run_ && (set[2].revents & POLLERR) != 0)
			end(Exit::done);
	}

	// The command gets the signal, and is waited for; a second one ends the wait.
	void end_run(int signal)
	{
		run_->pass_on(signal);
		struct pollfd set[] = {{run_->fd(), POLLIN, 0}, {signals_.fd(), POLLIN, 0}};
		while (poll(set, 2, -1) == -1 && errno == EINTR)
			continue;
		if (set[0].revents != 0 && run_->finish() && !options_.token.empty())
			keep_token(options_.token, token_);
		end(Exit::done);
	}

	void end(Exit code)
	{
		has_ended_ = true;
		code_ = code;
	}

	Database &database_;
	const Options &options_;
	EndSignals signals_;
	std::string token_; // of the last state
	std::unique_ptr<Receiver> receiver_;
	Watch watch_;
	std::unique_ptr<Run> run_;
	bool has_ended_ = false;
	Exit code_ = Exit::done;
};

Exit run(const Options &options)
{
	const std::unique_ptr<Database> database = open_database(options);
	return Watching(*database, options).run();
}

} // namespace

const Command watch_command = {
    {"watch", "Tell what changes in a database, when it changes", {}, nullptr,
	"Prints what is there (=), and then what is new (+), has changed (~) or has gone (-); -- ends each state.\n"
	"ostrel watch links.db --exec 'networkctl reload'   after each state; what comes meanwhile makes one more run\n"
	"ostrel watch links.db --json --once --token seen   what has changed since the last time"},
    declare, run};
