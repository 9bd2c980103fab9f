// A point read of a database that another process serves, beside the road that no server can do without: a bare round
// trip of the same bytes over a socket, and a raw search of the file in the middle of it. Both ends are on one CPU.
//
// Needs root: serving changes the owner of the hatch's directory.
#include <benchmark/benchmark.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <libostrel.h>
#include <meridon/hatch.h>
#include <sched.h>
#include <string>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "dataset.h"
#include "limits.h"
#include "processes.h"

namespace {

constexpr uint32_t objects = 100;
constexpr uid_t stranger = 65534; // has an entry in the user database: "nobody"

void must(bool right)
{
	if (!right)
		abort();
}

void stay_on_one_cpu()
{
	cpu_set_t one;
	CPU_ZERO(&one);
	CPU_SET(0, &one);
	must(sched_setaffinity(0, sizeof(one), &one) == 0);
}

// The files of this run, and the processes that serve; all end with it.
class World {
public:
	World()
	{
		must(mkdtemp(directory_.data()) != nullptr);
		std::filesystem::permissions(directory_, std::filesystem::perms(0755));
		std::ofstream file(database(), std::ios::binary);
		for (uint32_t i = 0; i < objects; i++)
			file << dataset::line(dataset::object(i));
		std::filesystem::create_directories(directory_ + "/etc/meridon");
		std::ofstream(directory_ + "/etc/meridon/rights") << "nobody: bench.read, bench.write\n";
		std::filesystem::permissions(directory_ + "/etc/meridon/rights", std::filesystem::perms(0644));
		must(setenv("MERIDON_ROOT", directory_.c_str(), 1) == 0);
		struct rlimit limit;
		must(getrlimit(RLIMIT_NOFILE, &limit) == 0);
		limit.rlim_cur = limit.rlim_max;
		must(setrlimit(RLIMIT_NOFILE, &limit) == 0);
		stay_on_one_cpu();
	}
	World(const World &) = delete;
	World &operator=(const World &) = delete;
	~World()
	{
		for (pid_t server : servers_) {
			(void) kill(server, SIGKILL);
			(void) waitpid(server, nullptr, 0);
		}
		std::error_code ignored;
		std::filesystem::remove_all(directory_, ignored);
	}

	std::string database() const { return directory_ + "/links.db"; }

	// Starts a process that runs `serve` and never comes back, and gives what it has said once it is ready.
	template <typename Serve>
	void start(const Serve &serve)
	{
		int ready[2];
		char byte = 0;
		must(pipe(ready) == 0);
		pid_t child = fork();
		must(child >= 0);
		if (child == 0)
			serve(ready[1]);
		servers_.push_back(child);
		must(read(ready[0], &byte, 1) == 1);
		(void) close(ready[0]);
		(void) close(ready[1]);
	}

	// The hatch of a server that asks for these rights.
	std::string serve(const char *name, const char *read_auth, const char *write_auth)
	{
		std::string path = directory_ + "/hatches/" + name;
		start([&](int ready) {
			ostrel_db_t db;
			int hatch;
			must(ostrel_db_open(database().c_str(), 0, ostrel_files_db_cmds, 0, &db) == OSTREL_SUCCESS);
			must(ostrel_hatchserver_create(path.c_str(), read_auth, write_auth, db, &hatch) ==
			     OSTREL_SUCCESS);
			must(write(ready, "", 1) == 1);
			for (;;)
				(void) pause();
		});
		return path;
	}

private:
	std::string directory_ = "/tmp/ostrel-bench-XXXXXX";
	std::vector<pid_t> servers_;
};

World &world()
{
	static World only;
	return only;
}

attrlist_t *wanted()
{
	dataset::Object object = dataset::object(objects / 2);
	attrlist_t *list;
	must(ostrel_idlist_init(&list, nullptr) == OSTREL_SUCCESS);
	must(ostrel_idlist_add(list, "linkname", object.linkname) == OSTREL_SUCCESS);
	must(ostrel_idlist_add(list, "zone", object.zone) == OSTREL_SUCCESS);
	return list;
}

void read_through(benchmark::State &state, const std::string &hatch)
{
	ostrel_db_t db;
	must(ostrel_db_open(hatch.c_str(), 0, ostrel_hatches_db_cmds, 0, &db) == OSTREL_SUCCESS);
	for (auto _ : state) {
		attrlist_t *id = wanted(), *props = nullptr;
		if (ostrel_db_read(db, id, 0, &props) != OSTREL_SUCCESS)
			abort();
		attrlist_free(props);
		attrlist_free(id);
	}
	ostrel_db_close(db);
}

void served_read(benchmark::State &state)
{
	static const std::string hatch = world().serve("everybody", nullptr, nullptr);
	read_through(state, hatch);
}

// The caller is an ordinary user, whose rights have to be looked up; the thread alone becomes one.
void served_read_with_rights(benchmark::State &state)
{
	static const std::string hatch = world().serve("rights", "bench.read", "bench.write");
	must(syscall(SYS_setresuid, stranger, stranger, 0) == 0);
	read_through(state, hatch);
	must(syscall(SYS_setresuid, 0, 0, 0) == 0);
}

// The bytes of the request and of its reply, as they travel.
constexpr size_t request_size = 109, reply_size = 303;

void served_read_limit(benchmark::State &state)
{
	static int client = -1;
	if (client < 0) {
		int ends[2];
		must(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0);
		std::string database = world().database();
		world().start([&](int ready) {
			char request[request_size], reply[reply_size] = {};
			limits::Searcher searcher(dataset::object(objects / 2).linkname);
			must(write(ready, "", 1) == 1);
			while (recv(ends[1], request, sizeof(request), 0) > 0) {
				benchmark::DoNotOptimize(limits::scan_file(database.c_str(), searcher));
				must(send(ends[1], reply, sizeof(reply), 0) == sizeof(reply));
			}
			_exit(0);
		});
		client = ends[0];
	}
	char request[request_size] = {}, reply[reply_size];
	for (auto _ : state) {
		must(send(client, request, sizeof(request), 0) == sizeof(request));
		must(recv(client, reply, sizeof(reply), 0) == sizeof(reply));
	}
}

// Clients that wait for a change of a served database (docs/formats/hatch-live.md), and what they wait with.
class Waits {
public:
	Waits(int hatch, size_t count) : hatch_(hatch), calls_(count)
	{
		for (hatch_pending_t *&call : calls_) {
			struct epoll_event event = {};
			hatch_arg_t arg = request();
			must(hatch_begin(hatch_, 1, &arg, &call) == 0);
			event.events = EPOLLIN;
			event.data.ptr = &call;
			must(epoll_ctl(set_, EPOLL_CTL_ADD, hatch_pending_fd(call), &event) == 0);
		}
		take(); // those that begin are answered at once
	}
	Waits(const Waits &) = delete;
	Waits &operator=(const Waits &) = delete;
	~Waits()
	{
		for (hatch_pending_t *call : calls_)
			hatch_cancel(call);
		(void) close(set_);
	}
	// Takes an answer of each, and has all wait again. Gives when the first came, and the last.
	std::pair<double, double> take()
	{
		double first = 0, last = 0;
		for (size_t told = 0; told < calls_.size();) {
			struct epoll_event events[64];
			const int ready = epoll_wait(set_, events, 64, -1);
			for (int i = 0; i < ready; i++) {
				char room[512];
				hatch_arg_t answer = {nullptr, 0, nullptr, 0, room, sizeof(room)};
				must(hatch_finish(*static_cast<hatch_pending_t **>(events[i].data.ptr), &answer) == 0);
				request_.assign(answer.data_ptr, answer.data_size); // its form is a request's
				last = now();
				first = told++ == 0 ? last : first;
			}
		}
		for (hatch_pending_t *call : calls_) {
			hatch_arg_t arg = request();
			must(hatch_again(call, &arg) == 0);
		}
		return {first, last};
	}
	static double now()
	{
		return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
	}

private:
	hatch_arg_t request() { return {request_.data(), request_.size(), nullptr, 0, nullptr, 0}; }

	std::string request_ = {4, 0, 0, 0, 0, 0, 0, 0}; // a wait
	int hatch_;
	int set_ = epoll_create1(EPOLL_CLOEXEC);
	std::vector<hatch_pending_t *> calls_;
};

// From the writer's reply until the first of so many waiters is told, and the last.
template <double std::pair<double, double>::*which>
void told_after_reply(benchmark::State &state)
{
	static const std::string hatch = world().serve("waiters", nullptr, nullptr);
	ostrel_db_t db;
	attrlist_t *props;
	must(ostrel_db_open(hatch.c_str(), 0, ostrel_hatches_db_cmds, 0, &db) == OSTREL_SUCCESS);
	must(attrlist_alloc(&props, ATL_UNIQUE_NAME, 0) == 0);
	const int fd = open(hatch.c_str(), O_RDONLY | O_CLOEXEC);
	{
		Waits waits(fd, static_cast<size_t>(state.range(0)));
		for (auto _ : state) {
			attrlist_t *id = wanted();
			(void) usleep(20000); // all of them are parked
			must(ostrel_db_write(db, id, 0, props) == OSTREL_SUCCESS);
			const double begin = Waits::now();
			state.SetIterationTime(waits.take().*which - begin);
			attrlist_free(id);
		}
	}
	attrlist_free(props);
	(void) close(fd);
	ostrel_db_close(db);
}

void told_first(benchmark::State &state)
{
	told_after_reply<&std::pair<double, double>::first>(state);
}

void told_last(benchmark::State &state)
{
	told_after_reply<&std::pair<double, double>::second>(state);
}

// How long the writer waits for its reply, with so many beside it.
void reply_beside_waiters(benchmark::State &state)
{
	static const std::string hatch = world().serve("beside", nullptr, nullptr);
	ostrel_db_t db;
	attrlist_t *props;
	must(ostrel_db_open(hatch.c_str(), 0, ostrel_hatches_db_cmds, 0, &db) == OSTREL_SUCCESS);
	must(attrlist_alloc(&props, ATL_UNIQUE_NAME, 0) == 0);
	const int fd = open(hatch.c_str(), O_RDONLY | O_CLOEXEC);
	{
		Waits waits(fd, static_cast<size_t>(state.range(0)));
		for (auto _ : state) {
			attrlist_t *id = wanted();
			(void) usleep(20000);
			const double begin = Waits::now();
			must(ostrel_db_write(db, id, 0, props) == OSTREL_SUCCESS);
			state.SetIterationTime(Waits::now() - begin);
			(void) waits.take();
			attrlist_free(id);
		}
	}
	attrlist_free(props);
	(void) close(fd);
	ostrel_db_close(db);
}

// The bare round trip.
void told_limit(benchmark::State &state)
{
	const processes::Echo echo(reply_size);
	for (auto _ : state)
		echo.trip(request_size);
}

BENCHMARK(told_first)->Arg(1)->Arg(1000)->UseManualTime()->Iterations(100);
BENCHMARK(told_last)->Arg(1)->Arg(1000)->UseManualTime()->Iterations(100);
BENCHMARK(reply_beside_waiters)->Arg(0)->Arg(1000)->UseManualTime()->Iterations(100);
BENCHMARK(told_limit)->Arg(1)->Arg(1000)->UseRealTime();
BENCHMARK(served_read)->Arg(objects)->UseRealTime();
BENCHMARK(served_read_with_rights)->Arg(objects)->UseRealTime();
BENCHMARK(served_read_limit)->Arg(objects)->UseRealTime();

} // namespace
