// Databases in the service repository, beside what they can't do without: a bare round trip of the same bytes, a bare SQLite
// commit, and the walk of a flat file that another process serves. Both ends are on one CPU.
//
// Needs root: serving changes the owner of the hatch's directory.
#include <benchmark/benchmark.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <libostrel.h>
#include <meridon/rpy.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "bare_file.h"
#include "processes.h"

namespace {

using namespace processes;

constexpr int properties = 10;
constexpr int many = 10000;
constexpr size_t reply_size = 350; // a group of ten numbers, nearly
constexpr const char *locator = "bench:i";

std::string name_of(int i)
{
	return "group" + std::to_string(i);
}

attrlist_t *identifiers(const char *key, const std::string &value)
{
	attrlist_t *list;
	must(ostrel_idlist_init(&list, nullptr) == OSTREL_SUCCESS);
	must(ostrel_idlist_add(list, key, value.c_str()) == OSTREL_SUCCESS);
	return list;
}

attrlist_t *numbers(uint64_t number)
{
	attrlist_t *list;
	must(attrlist_alloc(&list, ATL_UNIQUE_NAME, 0) == 0);
	for (int i = 0; i < properties; i++)
		must(ostrel_atl_add_one_uint64(list, ("prop" + std::to_string(i)).c_str(), number) == 0);
	return list;
}

// A daemon with an instance of so many groups, and the same objects in a flat file that a process serves.
class World {
public:
	explicit World(int groups)
	{
		must(mkdtemp(directory_.data()) != nullptr);
		std::filesystem::permissions(directory_, std::filesystem::perms(0755));
		std::filesystem::create_directories(directory_ + "/system/transient");
		must(setenv("MERIDON_ROOT", directory_.c_str(), 1) == 0);
		serve_file(groups);
		const std::string hatch = directory_ + "/system/transient/repository_hatch";
		must(run({BENCH_CONFIGD, "-d", hatch, "-r", directory_ + "/db"}) == 0);
		make_instance();
		must(ostrel_db_open(locator, 0, ostrel_cairn_db_cmds, 0, &db) == OSTREL_SUCCESS);
		attrlist_t *props = numbers(1);
		for (int i = 0; i < groups; i++) {
			attrlist_t *id = identifiers("object-pgname", name_of(i));
			must(ostrel_idlist_add(id, "object-pgtype", "type") == OSTREL_SUCCESS);
			const uint64_t flags = groups > 1000 ? OSTREL_FLAG_TEMPORARY : 0;
			must(ostrel_db_write(db, id, flags, props) == OSTREL_SUCCESS);
			attrlist_free(id);
		}
		attrlist_free(props);
	}
	World(const World &) = delete;
	World &operator=(const World &) = delete;
	~World()
	{
		(void) kill(server_, SIGKILL);
		must(setenv("MERIDON_ROOT", directory_.c_str(), 1) == 0);
		rpy_handle_t *handle = rpy_handle_create(RPY_CLIENT_VERSION);
		rpy_status_t status;
		if (rpy_handle_bind(handle) == 0 && _rpy_status(handle, &status) == 0 && status.rs_pid > 0)
			(void) kill(status.rs_pid, SIGKILL);
		std::error_code ignored;
		std::filesystem::remove_all(directory_, ignored);
	}

	ostrel_db_t db = nullptr;
	std::string served() const { return directory_ + "/hatches/file"; }

private:
	static void make_instance()
	{
		rpy_handle_t *handle = rpy_handle_create(RPY_CLIENT_VERSION);
		rpy_scope_t *scope = rpy_scope_create(handle);
		rpy_service_t *service = rpy_service_create(handle);
		rpy_instance_t *instance = rpy_instance_create(handle);
		must(rpy_handle_bind(handle) == 0 && rpy_handle_get_scope(handle, RPY_SCOPE_LOCAL, scope) == 0 &&
		     rpy_scope_add_service(scope, "bench", service) == 0 &&
		     rpy_service_add_instance(service, "i", instance) == 0);
		rpy_instance_destroy(instance);
		rpy_service_destroy(service);
		rpy_scope_destroy(scope);
		rpy_handle_destroy(handle);
	}
	// In a child, before this process has threads.
	void serve_file(int groups)
	{
		const std::string file = directory_ + "/file.db";
		std::ofstream text(file);
		for (int i = 0; i < groups; i++) {
			text << "name=" << name_of(i) << ";type=type;\t";
			for (int p = 0; p < properties; p++)
				text << "prop" << p << "=uint64,1;";
			text << "\n";
		}
		text.close();
		int ready[2];
		char byte = 0;
		must(pipe(ready) == 0);
		server_ = fork();
		must(server_ >= 0);
		if (server_ == 0) {
			ostrel_db_t served_db;
			int hatch;
			must(ostrel_db_open(file.c_str(), 0, ostrel_files_db_cmds, 0, &served_db) == OSTREL_SUCCESS);
			must(ostrel_hatchserver_create(served().c_str(), "", "", served_db, &hatch) == OSTREL_SUCCESS);
			must(write(ready[1], "", 1) == 1);
			for (;;)
				(void) pause();
		}
		must(read(ready[0], &byte, 1) == 1);
	}

	pid_t server_ = 0;
	std::string directory_ = "/tmp/ostrel-bench-XXXXXX";
};

World &large()
{
	static World only(many);
	return only;
}

// Durable, for the updates. Used after the other one: each sets the place of its daemon.
World &stored()
{
	static World only(10);
	return only;
}

Echo &echo()
{
	static Echo only(reply_size);
	return only;
}

// ---- One object ----

void read_limit(benchmark::State &state)
{
	for (auto _ : state)
		echo().trip(64);
}
BENCHMARK(read_limit);

void read_named(benchmark::State &state, const char *name, ostrel_error_t expected)
{
	ostrel_db_t db = large().db;
	for (auto _ : state) {
		attrlist_t *id = identifiers("object-pgname", name), *props = nullptr;
		must(ostrel_db_read(db, id, 0, &props) == expected);
		attrlist_free(props);
		attrlist_free(id);
	}
}
void read_by_name(benchmark::State &state)
{
	read_named(state, "group5000", OSTREL_SUCCESS);
}
BENCHMARK(read_by_name);
void read_in_another_case(benchmark::State &state)
{
	read_named(state, "GROUP5000", OSTREL_SUCCESS);
}
BENCHMARK(read_in_another_case);
void read_missing(benchmark::State &state)
{
	read_named(state, "nothing", OSTREL_NOT_FOUND);
}
BENCHMARK(read_missing);

// ---- Walks of 10,000 ----

int count_object(ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *arg)
{
	++*static_cast<int *>(arg);
	return 0;
}

void walk(benchmark::State &state, ostrel_db_t db, attrlist_t *id)
{
	for (auto _ : state) {
		int seen = 0;
		must(
		    ostrel_db_walk(db, id, 0, count_object, nullptr, &seen, nullptr) == OSTREL_SUCCESS && seen == many);
	}
	attrlist_free(id);
}
void walk_limit(benchmark::State &state)
{
	ostrel_db_t db;
	must(ostrel_db_open(large().served().c_str(), 0, ostrel_hatches_db_cmds, 0, &db) == OSTREL_SUCCESS);
	walk(state, db, nullptr);
	ostrel_db_close(db);
}
BENCHMARK(walk_limit)->UseRealTime();
void walk_by_type(benchmark::State &state)
{
	walk(state, large().db, identifiers("object-pgtype", "type"));
}
BENCHMARK(walk_by_type)->UseRealTime();

// ---- Many readers ----

// The same number of reads by so many threads on one handle; the limit is one thread.
void readers(benchmark::State &state, int threads)
{
	constexpr int reads = 3200;
	ostrel_db_t db = large().db;
	for (auto _ : state) {
		std::vector<std::thread> all;
		for (int t = 0; t < threads; t++)
			all.emplace_back([db, threads] {
				for (int i = 0; i < reads / threads; i++) {
					attrlist_t *id = identifiers("object-pgname", "group77"), *props = nullptr;
					must(ostrel_db_read(db, id, 0, &props) == OSTREL_SUCCESS);
					attrlist_free(props);
					attrlist_free(id);
				}
			});
		for (std::thread &thread : all)
			thread.join();
	}
	state.SetItemsProcessed(state.iterations() * reads);
}
BENCHMARK_CAPTURE(readers, one_limit, 1)->UseRealTime();
BENCHMARK_CAPTURE(readers, thirty_two, 32)->UseRealTime();

// What the kernel makes of as many threads that wait for as many others: no repository can do better.
void bare_readers(benchmark::State &state, size_t threads)
{
	constexpr size_t trips = 6400; // two for each read above
	constexpr size_t most = 32;
	int ends[most][2];
	for (size_t i = 0; i < threads; i++)
		must(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends[i]) == 0);
	pid_t other = fork();
	if (other == 0) {
		for (size_t i = 0; i < threads; i++)
			std::thread([fd = ends[i][1]] {
				char message[200];
				while (recv(fd, message, sizeof message, 0) > 0)
					must(send(fd, message, sizeof message, 0) > 0);
			}).detach();
		for (;;)
			(void) pause();
	}
	must(other > 0);
	for (auto _ : state) {
		std::vector<std::thread> all;
		for (size_t t = 0; t < threads; t++)
			all.emplace_back([fd = ends[t][0], threads] {
				char message[200] = {};
				for (size_t i = 0; i < trips / threads; i++)
					must(send(fd, message, sizeof message, 0) > 0 &&
					     recv(fd, message, sizeof message, 0) > 0);
			});
		for (std::thread &thread : all)
			thread.join();
	}
	must(kill(other, SIGKILL) == 0 && waitpid(other, nullptr, 0) == other);
	for (size_t i = 0; i < threads; i++) {
		(void) close(ends[i][0]);
		(void) close(ends[i][1]);
	}
}

BENCHMARK_CAPTURE(bare_readers, one_limit, 1)->UseRealTime();
BENCHMARK_CAPTURE(bare_readers, thirty_two, 32)->UseRealTime();

// ---- Updates ----

void write_limit(benchmark::State &state)
{
	BareFile file(properties * 30);
	for (auto _ : state)
		file.commit();
}
BENCHMARK(write_limit)->UseRealTime();

void write_object(benchmark::State &state)
{
	ostrel_db_t db = stored().db;
	attrlist_t *id = identifiers("object-pgname", "group7");
	uint64_t number = 0;
	for (auto _ : state) {
		attrlist_t *props = numbers(++number);
		must(ostrel_db_write(db, id, 0, props) == OSTREL_SUCCESS);
		attrlist_free(props);
	}
	attrlist_free(id);
}
BENCHMARK(write_object)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
	stay_on_one_cpu();
	(void) echo();
	(void) large();
	(void) stored();
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv))
		return 1;
	benchmark::RunSpecifiedBenchmarks();
	return 0;
}
