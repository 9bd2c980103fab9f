// A point read of a database that another process serves, beside the road that no server can do without: a bare round
// trip of the same bytes over a socket, and a raw search of the file in the middle of it. Both ends are on one CPU.
//
// Needs root: serving changes the owner of the hatch's directory.
#include <benchmark/benchmark.h>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <libostrel.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "dataset.h"
#include "limits.h"

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

BENCHMARK(served_read)->Arg(objects)->UseRealTime();
BENCHMARK(served_read_with_rights)->Arg(objects)->UseRealTime();
BENCHMARK(served_read_limit)->Arg(objects)->UseRealTime();

} // namespace
