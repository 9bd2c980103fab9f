// The service repository, beside what no daemon can do without: a bare round trip of the same bytes over a socket, and for
// a commit the same row in a bare SQLite file of the same journal mode. Both ends are on one CPU.
#include <algorithm>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <meridon/hatch.h>
#include <meridon/rpy.h>

#include "bare_file.h"
#include "processes.h"

namespace {

using namespace processes;

constexpr int properties = 10;
constexpr int many = 10000;
constexpr size_t reply_size =
    8 + 20 + 4 + 8 + 4 + 4 + 4 + 4 + properties * 30; // what a read of one group gives, nearly

// A daemon of this run, with files of its own.
class Daemon {
public:
	explicit Daemon(int groups) : groups_(groups)
	{
		must(mkdtemp(directory_.data()) != nullptr);
		start();
		handle = bind();
		scope = rpy_scope_create(handle);
		service = rpy_service_create(handle);
		instance = rpy_instance_create(handle);
		must(rpy_handle_get_scope(handle, RPY_SCOPE_LOCAL, scope) == 0);
		must(rpy_scope_add_service(scope, "bench", service) == 0);
		must(rpy_service_add_instance(service, "i", instance) == 0);
		for (int i = 0; i < groups_; i++)
			add("group" + std::to_string(i), groups_ > 1000 ? RPY_PG_FLAG_TEMPORARY : 0);
	}
	Daemon(const Daemon &) = delete;
	Daemon &operator=(const Daemon &) = delete;
	~Daemon()
	{
		(void) kill(pid, SIGKILL);
		std::error_code ignored;
		std::filesystem::remove_all(directory_, ignored);
	}

	std::string hatch() const { return directory_ + "/hatch"; }
	void start()
	{
		must(run({BENCH_CONFIGD, "-d", hatch(), "-r", directory_ + "/db"}) == 0);
		int fd = open(hatch().c_str(), O_RDONLY | O_CLOEXEC);
		hatch_info_t info;
		must(fd >= 0 && hatch_info(fd, &info) == 0);
		pid = info.di_target;
		hatch_forget(fd);
		(void) close(fd);
	}
	void stop() const
	{
		must(kill(pid, SIGTERM) == 0);
		while (kill(pid, 0) == 0 && !is_zombie())
			(void) usleep(100);
	}
	rpy_handle_t *bind() const
	{
		rpy_handle_t *bound = rpy_handle_create(RPY_CLIENT_VERSION);
		rpy_value_t *path = rpy_value_create(bound);
		must(rpy_value_set_astring(path, hatch().c_str()) == 0);
		must(rpy_handle_decorate(bound, "hatch_path", path) == 0 && rpy_handle_bind(bound) == 0);
		rpy_value_destroy(path);
		return bound;
	}
	void add(const std::string &name, uint32_t flags)
	{
		rpy_propertygroup_t *pg = rpy_pg_create(handle);
		must(rpy_instance_add_pg(instance, name.c_str(), "type", flags, pg) == 0);
		write(handle, pg, 0);
		rpy_pg_destroy(pg);
	}
	static void write(rpy_handle_t *with, rpy_propertygroup_t *pg, uint64_t number)
	{
		rpy_transaction_t *tx = rpy_transaction_create(with);
		rpy_property_t *property = rpy_property_create(with);
		must(rpy_transaction_start(tx, pg) == 0);
		for (int i = 0; i < properties; i++) {
			std::string name = "prop" + std::to_string(i);
			rpy_transaction_entry_t *entry = rpy_entry_create(with);
			rpy_value_t *value = rpy_value_create(with);
			rpy_value_set_count(value, number);
			bool exists = rpy_pg_get_property(pg, name.c_str(), property) == 0;
			must((exists ? rpy_transaction_property_change : rpy_transaction_property_new)(
				 tx, entry, name.c_str(), RPY_TYPE_COUNT) == 0);
			must(rpy_entry_add_value(entry, value) == 0);
		}
		must(rpy_transaction_commit(tx) == 1);
		rpy_transaction_destroy_children(tx);
		rpy_transaction_destroy(tx);
		rpy_property_destroy(property);
	}

	rpy_handle_t *handle;
	rpy_scope_t *scope;
	rpy_service_t *service;
	rpy_instance_t *instance;
	pid_t pid = 0;

private:
	// Ended, and not yet collected by whoever took it over.
	bool is_zombie() const
	{
		std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
		std::string text;
		std::getline(file, text);
		size_t state = text.rfind(") ");
		return state == text.npos || text[state + 2] == 'Z';
	}

	const int groups_;
	std::string directory_ = "/tmp/ostrel-bench-XXXXXX";
};

Daemon &stored()
{
	static Daemon only(100);
	return only;
}

Daemon &large()
{
	static Daemon only(many);
	return only;
}

Echo &echo()
{
	static Echo only(reply_size);
	return only;
}

// ---- Commits ----

void commit_limit(benchmark::State &state)
{
	BareFile file(properties * 30);
	for (auto _ : state) {
		echo().trip(400);
		file.commit();
	}
}
BENCHMARK(commit_limit)->UseRealTime();

void commit(benchmark::State &state)
{
	Daemon &daemon = stored();
	rpy_propertygroup_t *pg = rpy_pg_create(daemon.handle);
	must(rpy_instance_get_pg(daemon.instance, "group0", pg) == 0);
	uint64_t number = 0;
	for (auto _ : state) {
		Daemon::write(daemon.handle, pg, ++number);
		state.PauseTiming();
		must(rpy_pg_update(pg) == 1);
		state.ResumeTiming();
	}
	rpy_pg_destroy(pg);
}
BENCHMARK(commit)->UseRealTime();

// Commits a second of so many clients at once: the limit is one client's.
void clients_commit(benchmark::State &state, int clients)
{
	Daemon &daemon = stored();
	constexpr int each = 40;
	for (auto _ : state) {
		std::vector<std::thread> threads;
		for (int client = 0; client < clients; client++)
			threads.emplace_back([&daemon, client, clients] {
				rpy_propertygroup_t *pg = rpy_pg_create(daemon.handle);
				std::string name = "group" + std::to_string(client + 1);
				must(rpy_instance_get_pg(daemon.instance, name.c_str(), pg) == 0);
				for (int i = 0; i < each * 8 / clients; i++) {
					Daemon::write(daemon.handle, pg, static_cast<uint64_t>(i));
					must(rpy_pg_update(pg) == 1);
				}
				rpy_pg_destroy(pg);
			});
		for (std::thread &thread : threads)
			thread.join();
	}
	state.SetItemsProcessed(state.iterations() * each * 8);
}
BENCHMARK_CAPTURE(clients_commit, one_limit, 1)->UseRealTime();
BENCHMARK_CAPTURE(clients_commit, eight, 8)->UseRealTime();

// ---- Reads ----

void read_limit(benchmark::State &state)
{
	for (auto _ : state)
		echo().trip(32);
}
BENCHMARK(read_limit);

void look(
    rpy_handle_t *handle, const rpy_propertygroup_t *pg, rpy_iter_t *iter, rpy_property_t *property, rpy_value_t *value)
{
	(void) handle;
	must(rpy_iter_pg_properties(iter, pg) == 0);
	while (rpy_iter_next_property(iter, property) == 1)
		must(rpy_property_get_value(property, value) == 0);
}

void read_group(benchmark::State &state)
{
	Daemon &daemon = stored();
	rpy_propertygroup_t *pg = rpy_pg_create(daemon.handle);
	rpy_iter_t *iter = rpy_iter_create(daemon.handle);
	rpy_property_t *property = rpy_property_create(daemon.handle);
	rpy_value_t *value = rpy_value_create(daemon.handle);
	for (auto _ : state) {
		must(rpy_instance_get_pg(daemon.instance, "group50", pg) == 0);
		look(daemon.handle, pg, iter, property, value);
	}
	rpy_value_destroy(value);
	rpy_property_destroy(property);
	rpy_iter_destroy(iter);
	rpy_pg_destroy(pg);
}
BENCHMARK(read_group);

void read_among_10000(benchmark::State &state, const char *name, int expected)
{
	Daemon &daemon = large();
	rpy_propertygroup_t *pg = rpy_pg_create(daemon.handle);
	rpy_iter_t *iter = rpy_iter_create(daemon.handle);
	for (auto _ : state) {
		must(_rpy_iter_instance_pgs_like(iter, daemon.instance, name, nullptr) == 0);
		must(rpy_iter_next_pg(iter, pg) == expected);
	}
	rpy_iter_destroy(iter);
	rpy_pg_destroy(pg);
}
BENCHMARK_CAPTURE(read_among_10000, found, "GROUP5000", 1);
BENCHMARK_CAPTURE(read_among_10000, missing, "nothing", 0);

void list_10000(benchmark::State &state)
{
	Daemon &daemon = large();
	rpy_propertygroup_t *pg = rpy_pg_create(daemon.handle);
	rpy_iter_t *iter = rpy_iter_create(daemon.handle);
	for (auto _ : state) {
		int count = 0;
		must(rpy_iter_instance_pgs(iter, daemon.instance) == 0);
		while (rpy_iter_next_pg(iter, pg) == 1)
			count++;
		must(count == many);
	}
	rpy_iter_destroy(iter);
	rpy_pg_destroy(pg);
}
BENCHMARK(list_10000);

void snapshot_100(benchmark::State &state)
{
	Daemon &daemon = stored();
	rpy_snapshot_t *snapshot = rpy_snapshot_create(daemon.handle);
	if (rpy_instance_get_snapshot(daemon.instance, "running", snapshot) == -1)
		must(_rpy_snapshot_take_new(daemon.instance, "running", snapshot) == 0);
	for (auto _ : state)
		must(_rpy_snapshot_take_attach(daemon.instance, snapshot) == 0);
	rpy_snapshot_destroy(snapshot);
}
BENCHMARK(snapshot_100)->UseRealTime();

// The slowest of what `once` does but one in a hundred, in microseconds, alone or beside a thread that does `other` all the
// time. The limit is the bare round trip beside bare commits: what the one CPU and the disk make of it.
template <typename Once, typename Other>
void slowest(benchmark::State &state, bool beside, const Once &once, const Other &other)
{
	std::atomic<bool> end{false};
	std::thread writer;
	if (beside)
		writer = std::thread([&] { other(end); });
	std::vector<double> times;
	for (auto _ : state) {
		auto begin = std::chrono::steady_clock::now();
		once();
		times.push_back(
		    std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
	}
	end = true;
	if (beside)
		writer.join();
	std::sort(times.begin(), times.end());
	state.counters["p99_us"] = times[times.size() * 99 / 100];
}

void p99_limit(benchmark::State &state, bool beside)
{
	slowest(
	    state, beside, [] { echo().trip(32); },
	    [](const std::atomic<bool> &end) {
		    BareFile file(properties * 30);
		    while (!end)
			    file.commit();
	    });
}
BENCHMARK_CAPTURE(p99_limit, alone, false)->UseRealTime();
BENCHMARK_CAPTURE(p99_limit, beside_commits, true)->UseRealTime();

void p99(benchmark::State &state, bool beside)
{
	Daemon &daemon = stored();
	rpy_propertygroup_t *pg = rpy_pg_create(daemon.handle);
	slowest(
	    state, beside, [&] { must(rpy_instance_get_pg(daemon.instance, "group50", pg) == 0); },
	    [&](const std::atomic<bool> &end) {
		    rpy_propertygroup_t *written = rpy_pg_create(daemon.handle);
		    must(rpy_instance_get_pg(daemon.instance, "group0", written) == 0);
		    while (!end) {
			    Daemon::write(daemon.handle, written, 1);
			    must(rpy_pg_update(written) == 1);
		    }
		    rpy_pg_destroy(written);
	    });
	rpy_pg_destroy(pg);
}
BENCHMARK_CAPTURE(p99, alone, false)->UseRealTime();
BENCHMARK_CAPTURE(p99, beside_commits, true)->UseRealTime();

// ---- The start ----

void start_limit(benchmark::State &state)
{
	for (auto _ : state)
		must(run({"/bin/true"}) == 0);
}
BENCHMARK(start_limit)->UseRealTime();

void start_with_100_groups(benchmark::State &state)
{
	Daemon &daemon = stored();
	for (auto _ : state) {
		state.PauseTiming();
		daemon.stop();
		state.ResumeTiming();
		daemon.start();
	}
	// The other rows have handles of the daemon that was: they are bound anew.
	must(rpy_handle_unbind(daemon.handle) == 0 && rpy_handle_bind(daemon.handle) == 0);
}
BENCHMARK(start_with_100_groups)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
	stay_on_one_cpu();
	(void) echo(); // before there are threads
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv))
		return 1;
	benchmark::RunSpecifiedBenchmarks();
	return 0;
}
