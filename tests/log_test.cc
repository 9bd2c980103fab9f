// The log: which output a message takes, in which form, and what happens between two outputs and between two threads.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <initializer_list>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <meridon/msglog.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "child.h"
#include "golden_script.h"
#include "libostrel_log.h"
#include "libostrel_trace.h"
#include "scratch.h"

namespace {

std::string program()
{
	return link_text("/proc/self/exe");
}

// A message of priority 3 as stderr and the device have it.
std::string line_of(const std::string &text)
{
	return program() + ": 3: " + text + "\n";
}

// Starts each test with nothing chosen, and a directory of its own as the root of the message device.
class Log : public testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(mkdir(root_.path("dev").c_str(), 0755), 0);
		setenv("MERIDON_ROOT", root_.directory().c_str(), 1);
		unsetenv("OSTREL_LOG");
		ostrel_log_close();
	}
	void TearDown() override
	{
		ostrel_log_close();
		unsetenv("OSTREL_LOG");
		unsetenv("MERIDON_ROOT");
	}
	std::string device() const { return root_.path("dev/msglog"); }
	void make_device_file() const { (void) root_.write("dev/msglog", ""); }
	std::string on_device() const { return file_text(device()); }

	// Whether there is a stream of the device, and another one than at the last look.
	static std::string look_at_device(FILE *&last, int &descriptor)
	{
		const FILE *before = std::exchange(last, ostrel_msglog_fp);
		const int closed = std::exchange(descriptor, ostrel_msglog_fd);
		if (last == nullptr) {
			EXPECT_EQ(descriptor, -1);
			EXPECT_EQ(fcntl(closed, F_GETFD), -1);
			return "none";
		}
		EXPECT_EQ(fileno(last), descriptor);
		EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
		return last == before ? "same" : "new";
	}
	void play()
	{
		FILE *last = nullptr;
		int descriptor = -1;
		GoldenScript script(root_.directory());
		script.set("program", program());
		script.set("1023 bytes", std::string(1023, 'x'));
		script.add("env", [](auto &args) { return error_name_of(setenv("OSTREL_LOG", args[0].c_str(), 1)); });
		script.add("no_env", [](auto &) { return error_name_of(unsetenv("OSTREL_LOG")); });
		script.add("type", [](auto &) { return ostrel_log_type == nullptr ? "none" : "some"; });
		script.add("open", [](auto &args) {
			ostrel_log_open(args[0].empty() ? nullptr : args[0].c_str());
			return "ok";
		});
		script.add("close", [](auto &) {
			ostrel_log_close();
			return "ok";
		});
		script.add("device", [&](auto &) { return look_at_device(last, descriptor); });
		script.add("log", [](auto &args) {
			testing::internal::CaptureStderr();
			ostrel_log(std::stoi(args[0]), "%s and %d", args[1].c_str(), 7);
			return testing::internal::GetCapturedStderr();
		});
		script.add("plain", [](auto &args) {
			testing::internal::CaptureStderr();
			ostrel_log_fmt(std::stoi(args[0]), args[1].c_str());
			return testing::internal::GetCapturedStderr();
		});
		script.play("log.txt");
	}

	Scratch root_;
};

} // namespace

static const bool registered = register_parts<Log>("log.txt");

// Where memory runs out the device's half is lost, and nothing else: no descriptor, no memory, no later message.
TEST_F(Log, GivesBackAllItTookWhereAllocationsFail)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	make_device_file();
	auto log = [](int) {
		ostrel_log_open("msglog");
		ostrel_log(3, "%s", "message");
		ostrel_log_close();
		return 0;
	};
	log(0); // makes what the C library keeps for good
	const int descriptors = open_descriptors();
	int lost = 0;
	auto check = [&](int, int, bool failed) {
		lost += failed && on_device().empty();
		EXPECT_EQ(open_descriptors(), descriptors);
		EXPECT_TRUE(failed || on_device() == line_of("message"));
	};
	sweep_allocations([&] { return truncate(device().c_str(), 0); }, log, check);
	EXPECT_GT(lost, 0);
}

// ---- Records of the message device ----

TEST_F(Log, MakesOneRecordOfAMessageAndShortensTheProgramsNameBeforeTheText)
{
	ASSERT_EQ(mkfifo(device().c_str(), 0600), 0);
	Fd in(open(device().c_str(), O_RDONLY | O_NONBLOCK));
	ostrel_log_open("msglog");
	// A pipe in packet mode keeps the bounds of each write.
	ASSERT_EQ(fcntl(ostrel_msglog_fd, F_SETFL, O_DIRECT | O_APPEND), 0);
	auto next = [&in] {
		char record[4096];
		ssize_t length = read(in.get(), record, sizeof(record));
		return length < 0 ? "nothing there" : std::string(record, static_cast<size_t>(length));
	};
	for (int round = 0; round < 2; round++) { // the first write to a stream takes another way than the later ones
		ostrel_log(3, "line one\nline two\n\nend");
		EXPECT_EQ(next(), line_of("line one\nline two\n\nend"));
	}
	EXPECT_EQ(next(), "nothing there");
	const std::string fixed = ": 3: \n";
	std::string text(1023 - fixed.size() - 4, 'x');
	ostrel_log_fmt(3, text.c_str());
	EXPECT_EQ(next(), program().substr(program().size() - 4) + ": 3: " + text + "\n");
	text.resize(1023, 'x');
	ostrel_log_fmt(3, text.c_str());
	EXPECT_EQ(next(), ": 3: " + text.substr(0, 1017) + "\n");
	text.resize(5000, 'x');
	ostrel_log_fmt(-2147483647 - 1, text.c_str());
	EXPECT_EQ(next().size(), 1023u);
}

namespace {

// A device that takes records of so many bytes and refuses longer ones, as kernels do.
struct StrictDevice {
	size_t limit;
	std::vector<std::string> records;

	static ssize_t write(void *device, const char *record, size_t length)
	{
		auto *self = static_cast<StrictDevice *>(device);
		if (length > self->limit) {
			errno = EINVAL;
			return 0; // what a stream's own function says on failure
		}
		self->records.emplace_back(record, length);
		return static_cast<ssize_t>(length);
	}
};

} // namespace

TEST_F(Log, RefusedRecordComesShorterAndSpoilsNothing)
{
	make_device_file();
	ostrel_log_open("msglog");
	StrictDevice device = {MSGLOG_RECORD_MAX_OLD, {}};
	FILE *stream = fopencookie(&device, "a", {nullptr, StrictDevice::write, nullptr, nullptr});
	ASSERT_NE(stream, nullptr);
	setvbuf(stream, nullptr, _IONBF, 0);
	FILE *real = std::exchange(ostrel_msglog_fp, stream);
	std::string text(1000, 'x');
	ostrel_log_fmt(3, text.c_str());
	ostrel_log_fmt(3, "short");
	device.limit = 3;
	errno = EDOM;
	ostrel_log_fmt(3, "refused in any case");
	EXPECT_EQ(errno, EDOM) << "the caller's";
	device.limit = 1023;
	ostrel_log_fmt(3, "last");
	EXPECT_EQ(device.records, (std::vector<std::string>{": 3: " + text.substr(0, MSGLOG_RECORD_MAX_OLD - 6) + "\n",
				      line_of("short"), line_of("last")}));
	ostrel_msglog_fp = real;
	(void) fclose(stream);
}

// The kernel's own log stands in for the device, and what it took can be read from it again.
TEST_F(Log, ReachesTheKernelsLogWhereThereIsNoOtherDevice)
{
	Fd kernel(open("/dev/kmsg", O_RDONLY | O_NONBLOCK));
	if (!kernel || access("/dev/kmsg", W_OK) != 0 || access("/dev/msglog", F_OK) == 0)
		GTEST_SKIP() << "/dev/kmsg can't be read and written, or isn't the message device here";
	unsetenv("MERIDON_ROOT");
	(void) lseek(kernel.get(), 0, SEEK_END);
	std::string mark = "ostrel log test " + std::to_string(getpid()),
		    text = mark + std::string(1023 - mark.size(), '-');
	ostrel_log_open("msglog");
	ASSERT_NE(ostrel_msglog_fp, nullptr);
	ostrel_log_fmt(7, text.c_str());
	std::string found;
	char record[8192];
	for (ssize_t length; (length = read(kernel.get(), record, sizeof(record))) > 0;) {
		std::string line(record, static_cast<size_t>(length));
		if (line.find(mark) != std::string::npos)
			found = line.substr(line.find(';') + 1);
	}
	size_t length = found.find('\n');
	EXPECT_TRUE(length == MSGLOG_RECORD_MAX - 1 || length == MSGLOG_RECORD_MAX_OLD - 1) << length;
	EXPECT_EQ(found.substr(0, length), (": 7: " + text).substr(0, length));
}

// ---- Syslog ----

namespace {

// In a child with a /dev of its own: gives the datagrams that reach /dev/log there while `what` runs. It gets the socket.
// The time and the process number vary, and are left out.
std::string syslog_text(const std::function<int(int log)> &what, int expected)
{
	Scratch scratch;
	EXPECT_EQ(in_child([&] {
		sockaddr_un address = {AF_UNIX, "/dev/log"};
		Fd log(socket(AF_UNIX, SOCK_DGRAM, 0));
		timeval patience = {2, 0};
		if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
		    mount("none", "/dev", "tmpfs", 0, nullptr) != 0 ||
		    bind(log.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
		    setsockopt(log.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) != 0)
			return 77;
		openlog(nullptr, 0, LOG_USER); // as in a process that never used syslog
		closelog();
		const int status = what(log.get());
		std::string text;
		const std::string number = "[" + std::to_string(getpid()) + "]";
		for (char line[4096]; expected > 0; expected--) {
			ssize_t length = recv(log.get(), line, sizeof(line), 0);
			std::string got(line, static_cast<size_t>(std::max<ssize_t>(length, 0)));
			got.erase(std::min<size_t>(got.size(), 4), 16);
			if (size_t at = got.find(number); at != std::string::npos)
				got.erase(at + 1, number.size() - 2);
			text += got + "\n";
		}
		(void) scratch.write("lines", text);
		return status;
	}),
	    0);
	return file_text(scratch.path("lines"));
}

} // namespace

TEST_F(Log, SyslogGetsTheTextAsItStandsUnderTheProgramsName)
{
	SKIP_UNLESS_ROOT();
	const std::string lines = syslog_text(
	    [](int) {
		    ostrel_log_open("msglog"); // with the identity that the platform gives
		    ostrel_log_fmt(LOG_DEBUG, "to both");
		    ostrel_log_open("syslog");
		    ostrel_log_fmt(LOG_ERR, "100%s %n done");
		    return 0;
	    },
	    2);
	std::string path = program(), name = path.substr(path.rfind('/') + 1);
	EXPECT_EQ(lines, "<15>" + name + ": to both\n<27>" + path + "[]: 100%s %n done\n");
}

// ---- Threads ----

namespace {

// Threads that log one message after the other as long as this lives.
class Writers {
public:
	Writers(int count, const std::string &text)
	{
		for (int i = 0; i < count; i++)
			threads_.emplace_back([this, text] {
				while (!stop_)
					ostrel_log(3, "%s", text.c_str());
			});
	}
	~Writers()
	{
		stop_ = true;
		for (std::thread &thread : threads_)
			thread.join();
	}
	// Waits until an output takes no more. At the end what it holds has to be read.
	void fill(int output) const
	{
		for (int full = 0; full < 5; usleep(10000)) {
			struct pollfd look = {output, POLLOUT, 0};
			full = poll(&look, 1, 0) == 0 ? full + 1 : 0;
		}
	}

private:
	std::atomic<bool> stop_ = false;
	std::vector<std::thread> threads_;
};

} // namespace

TEST_F(Log, ThreadsThatLogFirstAtTheSameMomentOpenOneDevice)
{
	make_device_file();
	setenv("OSTREL_LOG", "msglog", 1);
	constexpr int count = 8;
	const int lowest = dup(0);
	(void) close(lowest);
	std::atomic<int> ready = 0;
	std::vector<std::thread> threads;
	for (int i = 0; i < count; i++)
		threads.emplace_back([&] {
			ready++;
			while (ready < count)
				std::this_thread::yield();
			ostrel_log(3, "first");
		});
	std::string expected;
	for (std::thread &thread : threads) {
		thread.join();
		expected += line_of("first");
	}
	EXPECT_EQ(ostrel_msglog_fd, lowest) << "opened once";
	EXPECT_EQ(on_device(), expected);
}

TEST_F(Log, IsClosedAndReopenedUnderThreadsThatWrite)
{
	make_device_file();
	{
		Writers writers(3, "line");
		for (int i = 0; i < 300; i++) {
			ostrel_log_open(i % 2 == 0 ? "msglog" : "console");
			ostrel_log_close();
		}
		ostrel_log_open("msglog");
	}
	ostrel_log(3, "last");
	std::istringstream lines(on_device());
	std::string line, last;
	for (; std::getline(lines, line); last = line)
		ASSERT_TRUE(line + "\n" == line_of("line") || line + "\n" == line_of("last")) << line;
	EXPECT_EQ(last + "\n", line_of("last"));
}

namespace {

std::atomic<bool> handlers_log;

void log_in_handler()
{
	if (handlers_log)
		ostrel_log(3, "handler");
}

// Before the log is used for the first time: handlers that it had would run within these.
const int handlers_set = pthread_atfork(log_in_handler, log_in_handler, log_in_handler);

} // namespace

// A child that is forked in the middle of another thread's message can log, too, and so can a program's own handlers.
TEST_F(Log, IsFreeInAForkedChildAndInHandlersOfTheFork)
{
	make_device_file();
	ASSERT_EQ(handlers_set, 0);
	handlers_log = true;
	ostrel_log_open("msglog");
	alarm(120); // ends a parent that waits for ever
	int ended_well = 0;
	{
		Writers writers(1, "parent");
		auto log_in_child = [] {
			return in_child([] {
				alarm(60);
				ostrel_log(3, "child");
				return 0;
			});
		};
		while (ended_well < 100 && log_in_child() == 0)
			ended_well++;
		handlers_log = false;
	}
	alarm(0);
	EXPECT_EQ(ended_well, 100);
}

// A child that logs to the last of these outputs, and ends.
static pid_t fork_logger(std::initializer_list<const char *> outputs)
{
	const pid_t child = fork(); // in_child() would flush the stream that a writer waits in
	if (child != 0)
		return child;
	alarm(60);
	for (const char *output : outputs)
		ostrel_log_open(output);
	ostrel_log(3, "child");
	_exit(0);
}

TEST_F(Log, AFullPipeHoldsUpNobodyButItsWriters)
{
	make_device_file();
	int pipe_ends[2];
	ASSERT_EQ(pipe(pipe_ends), 0);
	Fd in(pipe_ends[0]), saved(dup(STDERR_FILENO));
	ASSERT_EQ(dup2(pipe_ends[1], STDERR_FILENO), STDERR_FILENO);
	(void) close(pipe_ends[1]);
	ostrel_log_open("stderr");
	alarm(120);
	std::thread reader;
	{
		Writers writers(1, std::string(1000, 'x'));
		writers.fill(STDERR_FILENO);
		const pid_t child = fork_logger({"msglog"});
		int status = -1;
		EXPECT_EQ(waitpid(child, &status, 0), child);
		EXPECT_EQ(status, 0);
		ostrel_log_open("msglog");
		ostrel_log(3, "elsewhere");
		EXPECT_NE(on_device().find(line_of("elsewhere")), std::string::npos);
		reader = std::thread([&] {
			char drain[65536];
			while (read(in.get(), drain, sizeof(drain)) > 0) {
			}
		});
	}
	alarm(0);
	(void) dup2(saved.get(), STDERR_FILENO);
	reader.join();
	EXPECT_EQ(on_device().find(line_of("child")), 0u);
}

// The C library's own lock of syslog is another thread's in such a child, for good.
TEST_F(Log, AChildOfAProcessThatWaitsInSyslogLogs)
{
	SKIP_UNLESS_ROOT();
	auto flood_and_fork = [](int log) {
		sockaddr_un address = {AF_UNIX, "/dev/log"};
		int output = socket(AF_UNIX, SOCK_DGRAM, 0);
		if (connect(output, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
			return 1;
		alarm(120);
		ostrel_log_open("syslog");
		Writers writers(1, std::string(1000, 'x'));
		writers.fill(output);
		(void) fork_logger({"stderr", "syslog"});
		char text[4096];
		for (ssize_t length; (length = recv(log, text, sizeof(text) - 1, 0)) > 0;) {
			text[length] = '\0';
			if (strstr(text, "child") != nullptr)
				_exit(0); // the writer waits
		}
		_exit(2);
	};
	EXPECT_EQ(syslog_text(flood_and_fork, 0), "");
}
