// Calls between processes, beside a bare round trip of the same bytes over a SOCK_SEQPACKET socket, and beside a bus
// connection from peer to peer. For latency both ends are on one CPU; the many clients use all there are.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <meridon/hatch.h>
#include <mutex>
#include <sched.h>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int clients_many = 64;
constexpr size_t piece = 262144; // what one message takes without a larger buffer

void must(bool right)
{
	if (!right)
		abort();
}

void stay_on(bool one_cpu)
{
	static cpu_set_t all;
	static const int known = sched_getaffinity(0, sizeof(all), &all);
	cpu_set_t set = all;
	must(known == 0);
	if (one_cpu) {
		CPU_ZERO(&set);
		CPU_SET(0, &set);
	}
	must(sched_setaffinity(0, sizeof(set), &set) == 0);
}

// A process that serves until this ends: `serve` gets a descriptor to write a byte to once it is ready, and doesn't return.
class Server {
public:
	template <typename Serve>
	explicit Server(const Serve &serve)
	{
		int ready[2];
		char byte;
		must(pipe(ready) == 0);
		pid_ = fork();
		must(pid_ >= 0);
		if (pid_ == 0) {
			serve(ready[1]);
			_exit(0);
		}
		must(read(ready[0], &byte, 1) == 1);
		(void) close(ready[0]);
		(void) close(ready[1]);
	}
	Server(const Server &) = delete;
	Server &operator=(const Server &) = delete;
	~Server()
	{
		(void) kill(pid_, SIGKILL);
		(void) waitpid(pid_, nullptr, 0);
	}

private:
	pid_t pid_;
};

class Directory {
public:
	Directory() { must(mkdtemp(path_) != nullptr); }
	Directory(const Directory &) = delete;
	Directory &operator=(const Directory &) = delete;
	~Directory()
	{
		std::error_code ignored;
		std::filesystem::remove_all(path_, ignored);
	}
	std::string hatch() const { return std::string(path_) + "/hatch"; }

private:
	char path_[32] = "/tmp/ostrel-bench-XXXXXX";
};

// ---- Hatches ----

// Takes the caller's credential, as every server of a database does, and gives the request back.
void echo(void *, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	peercred_t *cred;
	must(hatch_peercred(&cred) == 0);
	peercred_free(cred);
	(void) hatch_return(arg, size, nullptr, 0);
}

[[noreturn]] void serve_hatch(const std::string &path, int ready)
{
	int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
	int hatch = hatch_create(echo, nullptr, HATCH_REFUSE_DESC);
	must(file >= 0 && hatch >= 0 && fattach(hatch, path.c_str()) == 0);
	must(write(ready, "", 1) == 1);
	for (;;)
		(void) pause();
}

void call(int hatch, std::string &request, std::string &room)
{
	hatch_arg_t arg = {request.data(), request.size(), nullptr, 0, room.data(), room.size()};
	must(hatch_call(hatch, &arg) == 0 && arg.data_size == request.size() && arg.rbuf == room.data());
}

size_t bytes_of(const benchmark::State &state)
{
	return static_cast<size_t>(state.range(0));
}

void call_with_room(benchmark::State &state)
{
	stay_on(true);
	Directory directory;
	Server server([&](int ready) { serve_hatch(directory.hatch(), ready); });
	int hatch = open(directory.hatch().c_str(), O_RDONLY | O_CLOEXEC);
	std::string request(bytes_of(state), 'x'), room(bytes_of(state), '\0');
	for (auto _ : state)
		call(hatch, request, room);
	(void) close(hatch);
}

// What the library's client does: a look before the call, a reply in a mapping of its own, and a copy of it on the heap.
void client_road(benchmark::State &state)
{
	stay_on(true);
	Directory directory;
	Server server([&](int ready) { serve_hatch(directory.hatch(), ready); });
	int hatch = open(directory.hatch().c_str(), O_RDONLY | O_CLOEXEC);
	std::string request(bytes_of(state), 'x');
	for (auto _ : state) {
		hatch_info_t info;
		hatch_arg_t arg = {request.data(), request.size(), nullptr, 0, nullptr, 1};
		must(hatch_info(hatch, &info) == 0 && hatch_call(hatch, &arg) == 0);
		void *copy = malloc(arg.rsize);
		memcpy(copy, arg.rbuf, arg.rsize);
		benchmark::DoNotOptimize(copy);
		(void) munmap(arg.rbuf, arg.rsize);
		free(copy);
	}
	(void) close(hatch);
}

// ---- The bare socket ----

void send_all(int fd, const char *data, size_t size)
{
	for (size_t part; size > 0; data += part, size -= part) {
		part = size < piece ? size : piece;
		must(send(fd, data, part, MSG_NOSIGNAL) == static_cast<ssize_t>(part));
	}
}

bool receive_all(int fd, char *data, size_t size)
{
	while (size > 0) {
		ssize_t got = recv(fd, data, size, 0);
		if (got <= 0)
			return false;
		data += got;
		size -= static_cast<size_t>(got);
	}
	return true;
}

void large_buffers(int fd)
{
	int size = 2 * static_cast<int>(piece);
	must(setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)) == 0 ||
	     setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == 0);
}

// Gives back what it gets, from each of these sockets in turn as they have something.
void echo_bare(int fd, size_t size)
{
	std::string room(size, '\0');
	while (receive_all(fd, room.data(), size))
		send_all(fd, room.data(), size);
}

template <typename Around>
void bare(benchmark::State &state, int type, size_t size, const Around &around)
{
	int ends[2];
	must(socketpair(AF_UNIX, type, 0, ends) == 0);
	if (type == SOCK_SEQPACKET) {
		large_buffers(ends[0]);
		large_buffers(ends[1]);
	}
	Server server([&](int ready) {
		(void) close(ends[0]);
		must(write(ready, "", 1) == 1);
		echo_bare(ends[1], size);
	});
	(void) close(ends[1]);
	std::string request(size, 'x'), room(size, '\0');
	for (auto _ : state) {
		send_all(ends[0], request.data(), request.size());
		must(receive_all(ends[0], room.data(), room.size()));
		around(room);
	}
	(void) close(ends[0]);
}

void call_with_room_limit(benchmark::State &state)
{
	stay_on(true);
	bare(
	    state, bytes_of(state) > piece ? SOCK_STREAM : SOCK_SEQPACKET, bytes_of(state), [](const std::string &) {});
}

// The same, with a mapping made, touched and given up, and a copy on the heap.
void client_road_limit(benchmark::State &state)
{
	stay_on(true);
	bare(state, SOCK_SEQPACKET, bytes_of(state), [](const std::string &reply) {
		void *map = mmap(nullptr, reply.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
		must(map != MAP_FAILED);
		memcpy(map, reply.data(), reply.size());
		void *copy = malloc(reply.size());
		memcpy(copy, map, reply.size());
		benchmark::DoNotOptimize(copy);
		free(copy);
		(void) munmap(map, reply.size());
	});
}

// ---- A bus, from peer to peer ----

int echo_on_bus(sd_bus_message *message, void *, sd_bus_error *)
{
	const void *bytes;
	size_t size;
	sd_bus_message *reply = nullptr;
	must(sd_bus_message_read_array(message, 'y', &bytes, &size) >= 0);
	must(sd_bus_message_new_method_return(message, &reply) >= 0);
	must(sd_bus_message_append_array(reply, 'y', bytes, size) >= 0);
	must(sd_bus_send(nullptr, reply, nullptr) >= 0);
	sd_bus_message_unref(reply);
	return 1;
}

sd_bus *start_bus(int fd, bool server)
{
	sd_bus *bus = nullptr;
	sd_id128_t id = {};
	must(sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, fd, fd) >= 0);
	if (server)
		must(sd_bus_set_server(bus, 1, id) >= 0 && sd_bus_set_anonymous(bus, 1) >= 0);
	must(sd_bus_start(bus) >= 0);
	return bus;
}

void serve_bus(int fd, int ready)
{
	sd_bus *bus = start_bus(fd, true);
	must(sd_bus_add_object(bus, nullptr, "/o", echo_on_bus, nullptr) >= 0);
	must(write(ready, "", 1) == 1);
	for (int done; (done = sd_bus_process(bus, nullptr)) >= 0;)
		if (done == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)
			break;
}

void call_on_bus(sd_bus *bus, const std::string &request)
{
	sd_bus_message *message = nullptr, *reply = nullptr;
	must(sd_bus_message_new_method_call(bus, &message, nullptr, "/o", "o.o", "Echo") >= 0);
	must(sd_bus_message_append_array(message, 'y', request.data(), request.size()) >= 0);
	must(sd_bus_call(bus, message, 0, nullptr, &reply) >= 0);
	sd_bus_message_unref(reply);
	sd_bus_message_unref(message);
}

void call_with_room_bus(benchmark::State &state)
{
	stay_on(true);
	int ends[2];
	must(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
	Server server([&](int ready) {
		(void) close(ends[0]);
		serve_bus(ends[1], ready);
	});
	(void) close(ends[1]);
	sd_bus *bus = start_bus(ends[0], false);
	std::string request(bytes_of(state), 'x');
	for (auto _ : state)
		call_on_bus(bus, request);
	sd_bus_unref(bus);
}

// ---- Many clients at once: each is a thread with a connection of its own ----

// Makes `calls` calls on each of the threads; `client` makes what a thread calls with.
template <typename Client>
void many(benchmark::State &state, const Client &client)
{
	constexpr int calls = 200;
	for (auto _ : state) {
		std::vector<std::thread> threads;
		threads.reserve(clients_many);
		for (int i = 0; i < clients_many; i++)
			threads.emplace_back([&, i] { client(i, calls); });
		for (std::thread &thread : threads)
			thread.join();
	}
	state.SetItemsProcessed(state.iterations() * clients_many * calls);
}

void many_clients(benchmark::State &state)
{
	stay_on(false);
	Directory directory;
	Server server([&](int ready) { serve_hatch(directory.hatch(), ready); });
	int hatch = open(directory.hatch().c_str(), O_RDONLY | O_CLOEXEC);
	many(state, [&](int, int calls) {
		std::string request(bytes_of(state), 'x'), room(bytes_of(state), '\0');
		for (int i = 0; i < calls; i++)
			call(hatch, request, room);
	});
	(void) close(hatch);
}

void many_clients_limit(benchmark::State &state)
{
	stay_on(false);
	int ends[clients_many][2];
	for (auto &pair : ends)
		must(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0);
	Server server([&](int ready) {
		for (auto &pair : ends)
			(void) close(pair[0]);
		std::vector<std::thread> threads;
		for (auto &pair : ends)
			threads.emplace_back([&] { echo_bare(pair[1], bytes_of(state)); });
		must(write(ready, "", 1) == 1);
		for (std::thread &thread : threads)
			thread.join();
	});
	for (auto &pair : ends)
		(void) close(pair[1]);
	many(state, [&](int i, int calls) {
		std::string request(bytes_of(state), 'x'), room(bytes_of(state), '\0');
		for (int call = 0; call < calls; call++) {
			send_all(ends[i][0], request.data(), request.size());
			must(receive_all(ends[i][0], room.data(), room.size()));
		}
	});
	for (auto &pair : ends)
		(void) close(pair[0]);
}

void many_clients_bus(benchmark::State &state)
{
	stay_on(false);
	int ends[clients_many][2];
	for (auto &pair : ends)
		must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
	Server server([&](int ready) {
		std::vector<std::thread> threads;
		int started[2];
		char byte;
		must(pipe(started) == 0);
		for (auto &pair : ends) {
			(void) close(pair[0]);
			threads.emplace_back([&, fd = pair[1]] { serve_bus(fd, started[1]); });
			must(read(started[0], &byte, 1) == 1);
		}
		must(write(ready, "", 1) == 1);
		for (std::thread &thread : threads)
			thread.join();
	});
	std::vector<sd_bus *> buses;
	for (auto &pair : ends) {
		(void) close(pair[1]);
		buses.push_back(start_bus(pair[0], false));
	}
	many(state, [&](int i, int calls) {
		std::string request(bytes_of(state), 'x');
		for (int call = 0; call < calls; call++)
			call_on_bus(buses[static_cast<size_t>(i)], request);
	});
	for (sd_bus *bus : buses)
		sd_bus_unref(bus);
}

// ---- Clients that wait ----

int64_t now_ns()
{
	return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

// Parks calls on one channel. A call on channel 0 gives their number, and with 'r' rings a bell, at which all are answered with the
// moment when that began.
struct Waiting {
	int hatch;
	int bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
	std::mutex lock;
	std::vector<uint64_t> tickets;

	static void park(void *cookie, char *, size_t, hatch_desc_t *, unsigned int)
	{
		auto *waiting = static_cast<Waiting *>(cookie);
		uint64_t ticket;
		must(hatch_ticket(&ticket) == 0);
		{
			const std::lock_guard<std::mutex> hold(waiting->lock);
			waiting->tickets.push_back(ticket);
		}
		(void) hatch_park();
	}
	static void ring(void *cookie, char *arg, size_t, hatch_desc_t *, unsigned int)
	{
		auto *waiting = static_cast<Waiting *>(cookie);
		uint64_t count = 0;
		{
			const std::lock_guard<std::mutex> hold(waiting->lock);
			count = waiting->tickets.size();
		}
		if (*arg == 'r')
			must(eventfd_write(waiting->bell, 1) == 0);
		(void) hatch_return(reinterpret_cast<char *>(&count), sizeof count, nullptr, 0);
	}
	static void tell(void *cookie)
	{
		auto *waiting = static_cast<Waiting *>(cookie);
		const int64_t begin = now_ns();
		eventfd_t rung;
		(void) eventfd_read(waiting->bell, &rung);
		std::vector<uint64_t> told;
		{
			const std::lock_guard<std::mutex> hold(waiting->lock);
			told.swap(waiting->tickets);
		}
		for (uint64_t ticket : told)
			must(hatch_answer(
				 waiting->hatch, ticket, reinterpret_cast<const char *>(&begin), sizeof begin) == 0);
	}
};

void allow_descriptors()
{
	struct rlimit limit;
	must(getrlimit(RLIMIT_NOFILE, &limit) == 0);
	limit.rlim_cur = limit.rlim_max;
	must(setrlimit(RLIMIT_NOFILE, &limit) == 0);
}

[[noreturn]] void serve_waiting(const std::string &path, int ready)
{
	allow_descriptors();
	Waiting waiting;
	waiting.hatch = hatch_create(Waiting::ring, &waiting, HATCH_REFUSE_DESC);
	const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
	must(file >= 0 && hatch_channel(waiting.hatch, 1, Waiting::park, &waiting, HATCH_NEVER_WAITS) == 0);
	must(hatch_source(waiting.hatch, waiting.bell, Waiting::tell, &waiting) == 0);
	must(fattach(waiting.hatch, path.c_str()) == 0 && write(ready, "", 1) == 1);
	for (;;)
		(void) pause();
}

uint64_t ask(int hatch, char what)
{
	uint64_t count = 0;
	hatch_arg_t arg = {&what, 1, nullptr, 0, reinterpret_cast<char *>(&count), sizeof count};
	must(hatch_call(hatch, &arg) == 0 && arg.data_size == sizeof count);
	return count;
}

class Waiters {
public:
	Waiters(int hatch, size_t count) : hatch_(hatch), calls_(count)
	{
		for (hatch_pending_t *&call : calls_) {
			struct epoll_event event = {};
			must(hatch_begin(hatch, 1, &request_, &call) == 0);
			event.events = EPOLLIN;
			event.data.ptr = call;
			must(epoll_ctl(set_, EPOLL_CTL_ADD, hatch_pending_fd(call), &event) == 0);
		}
	}
	Waiters(const Waiters &) = delete;
	Waiters &operator=(const Waiters &) = delete;
	~Waiters()
	{
		for (hatch_pending_t *call : calls_)
			hatch_cancel(call);
		(void) close(set_);
	}
	// Has all told. Gives the time until the first was, and the last.
	std::pair<int64_t, int64_t> tell()
	{
		while (ask(hatch_, 'n') < calls_.size())
			(void) usleep(100);
		int64_t begin = 0, first = 0;
		(void) ask(hatch_, 'r');
		for (size_t told = 0; told < calls_.size();) {
			struct epoll_event events[64];
			const int count = epoll_wait(set_, events, 64, -1);
			for (int i = 0; i < count; i++) {
				hatch_arg_t arg = {
				    nullptr, 0, nullptr, 0, reinterpret_cast<char *>(&begin), sizeof begin};
				must(hatch_finish(static_cast<hatch_pending_t *>(events[i].data.ptr), &arg) == 0);
				if (told++ == 0)
					first = now_ns();
			}
		}
		const int64_t last = now_ns();
		for (hatch_pending_t *call : calls_)
			must(hatch_again(call, &request_) == 0);
		return {first - begin, last - begin};
	}

private:
	char byte_ = 'w';
	const hatch_arg_t request_ = {&byte_, 1, nullptr, 0, nullptr, 0};
	int hatch_;
	int set_ = epoll_create1(EPOLL_CLOEXEC);
	std::vector<hatch_pending_t *> calls_;
};

template <int64_t std::pair<int64_t, int64_t>::*which>
void told(benchmark::State &state)
{
	stay_on(false);
	allow_descriptors();
	const Directory directory;
	const Server server([&](int ready) { serve_waiting(directory.hatch(), ready); });
	const int hatch = open(directory.hatch().c_str(), O_RDONLY | O_CLOEXEC);
	{
		Waiters waiters(hatch, bytes_of(state));
		for (auto _ : state)
			state.SetIterationTime(static_cast<double>(waiters.tell().*which) / 1e9);
	}
	(void) close(hatch);
}

// One round trip, however many wait.
void told_limit(benchmark::State &state)
{
	stay_on(false);
	bare(state, SOCK_SEQPACKET, sizeof(int64_t), [](const std::string &) {});
}

void told_first(benchmark::State &state)
{
	told<&std::pair<int64_t, int64_t>::first>(state);
}

void told_last(benchmark::State &state)
{
	told<&std::pair<int64_t, int64_t>::second>(state);
}

constexpr int64_t kib = 1024;

BENCHMARK(call_with_room)->Arg(64)->Arg(kib)->Arg(64 * kib)->Arg(kib *kib)->UseRealTime();
BENCHMARK(call_with_room_bus)->Arg(64)->Arg(kib)->Arg(64 * kib)->Arg(kib *kib)->UseRealTime();
BENCHMARK(call_with_room_limit)->Arg(64)->Arg(kib)->Arg(64 * kib)->Arg(kib *kib)->UseRealTime();
BENCHMARK(told_limit)->Arg(1)->Arg(100)->Arg(1000)->UseRealTime();
BENCHMARK(told_first)->Arg(1)->Arg(100)->Arg(1000)->UseManualTime()->Iterations(100);
BENCHMARK(told_last)->Arg(1)->Arg(100)->Arg(1000)->UseManualTime()->Iterations(100);
BENCHMARK(client_road)->Arg(kib)->Arg(64 * kib)->UseRealTime();
BENCHMARK(client_road_limit)->Arg(kib)->Arg(64 * kib)->UseRealTime();
BENCHMARK(many_clients)->Arg(64)->UseRealTime();
BENCHMARK(many_clients_bus)->Arg(64)->UseRealTime();
BENCHMARK(many_clients_limit)->Arg(64)->UseRealTime();

} // namespace
