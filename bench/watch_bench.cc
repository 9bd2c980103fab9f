// Watches: from a writer's reply to the event at a thread that waits for it, beside a bare round trip through two pipes.
//
// An update syncs after its rename, and the kernel tells of the rename: so a watcher on a disk has the event before the writer
// has its reply, which counts as 0. The row "from the beginning" has the whole update in it.
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <libostrelx.h>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

void must(int error)
{
	if (error != 0)
		abort();
}

// A database of 100 objects, and a thread that watches it and notes when it has got a value.
class Watched {
public:
	Watched()
	{
		const char *parent = getenv("BENCH_DIR");
		directory_ = std::string(parent != nullptr ? parent : "/tmp") + "/ostrel-bench-XXXXXX";
		if (mkdtemp(directory_.data()) == nullptr)
			abort();
		must(ostrel_db_open((directory_ + "/db").c_str(), 0, ostrel_files_db_cmds, 0, &db_));
		for (int i = 0; i < 100; i++)
			write(std::to_string(i), 0);
		must(ostrelx_watch_open(db_, nullptr, 0, nullptr, &watch_));
		must(pipe(stop_));
		thread_ = std::thread([this] { follow(); });
	}
	~Watched()
	{
		must(close(stop_[1]));
		thread_.join();
		must(close(stop_[0]));
		ostrelx_watch_close(watch_);
		must(ostrel_db_remove(db_, nullptr, 0));
		ostrel_db_close(db_);
		(void) rmdir(directory_.c_str());
	}

	void write(const std::string &name, int32_t value)
	{
		attrlist_t *idl, *props;
		must(attrlist_alloc(&idl, ATL_UNIQUE_NAME, 0));
		must(attrlist_add_string(idl, "name", name.c_str()));
		must(attrlist_alloc(&props, ATL_UNIQUE_NAME, 0));
		must(attrlist_add_int32_array(props, "value", &value, 1));
		must(ostrel_db_write(db_, idl, 0, props));
		attrlist_free(props);
		attrlist_free(idl);
	}
	// When the watcher got the value.
	Clock::time_point told(int32_t value)
	{
		while (got_.load(std::memory_order_acquire) != value)
			std::this_thread::yield();
		return when_;
	}

private:
	void follow()
	{
		for (;;) {
			ostrelx_event_t event;
			while (ostrelx_watch_next(watch_, &event) == OSTREL_SUCCESS) {
				int32_t *values;
				uint_t count;
				if (event.kind != OSTRELX_EVENT_PUT ||
				    attrlist_lookup_int32_array(event.props, "value", &values, &count) != 0)
					continue;
				when_ = Clock::now();
				got_.store(values[0], std::memory_order_release);
			}
			struct pollfd set[] = {{ostrelx_watch_fd(watch_), POLLIN, 0}, {stop_[0], POLLIN, 0}};
			if (poll(set, 2, -1) > 0 && set[1].revents != 0)
				return;
		}
	}

	std::string directory_;
	ostrel_db_t db_ = nullptr;
	ostrelx_watch_t watch_ = nullptr;
	int stop_[2] = {-1, -1};
	Clock::time_point when_; // written before got_
	std::atomic<int32_t> got_ = 0;
	std::thread thread_;
};

void watch(benchmark::State &state, bool from_reply)
{
	Watched watched;
	int32_t value = 0;
	for (auto _ : state) {
		const Clock::time_point begin = Clock::now();
		watched.write("50", ++value);
		const Clock::time_point since = from_reply ? Clock::now() : begin;
		const std::chrono::duration<double> took = watched.told(value) - since;
		state.SetIterationTime(took.count() > 0 ? took.count() : 0);
	}
}

void told(benchmark::State &state)
{
	watch(state, true);
}

void told_from_the_beginning(benchmark::State &state)
{
	watch(state, false);
}

void told_limit(benchmark::State &state)
{
	int there[2], back[2];
	must(pipe(there));
	must(pipe(back));
	std::thread other([&] {
		for (char byte; read(there[0], &byte, 1) == 1;)
			must(write(back[1], &byte, 1) == 1 ? 0 : 1);
	});
	char byte = 0;
	for (auto _ : state) {
		const Clock::time_point begin = Clock::now();
		must(write(there[1], &byte, 1) == 1 && read(back[0], &byte, 1) == 1 ? 0 : 1);
		state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
	}
	must(close(there[1]));
	other.join();
	for (int fd : {there[0], back[0], back[1]})
		must(close(fd));
}

BENCHMARK(told_limit)->Arg(100)->UseManualTime();
BENCHMARK(told)->Arg(100)->UseManualTime();
BENCHMARK(told_from_the_beginning)->Arg(100)->UseManualTime();

} // namespace
