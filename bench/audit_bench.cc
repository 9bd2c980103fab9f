// What is paid for being watched: a trace point while nobody is attached, beside the same function without one; an audit
// record, beside a bare message of the same length to the kernel and its answer; an update with a record, beside one
// without. Records are made as the machine is: with audit off the kernel takes them and keeps nothing.
//
// Records need root; elsewhere their rows show what a process without the privilege pays.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <linux/audit.h>
#include <linux/netlink.h>
#include <meridon/trail.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "libostrel_impl.h"

namespace {

void must(bool right)
{
	if (!right)
		abort();
}

// A list of one identifier, or of one property.
attrlist_t *list_of(const char *name, const char *value)
{
	attrlist_t *list;
	must(ostrel_idlist_init(&list, nullptr) == OSTREL_SUCCESS);
	must(ostrel_idlist_add(list, name, value) == OSTREL_SUCCESS);
	return list;
}

class Directory {
public:
	Directory() { must(mkdtemp(path_.data()) != nullptr); }
	Directory(const Directory &) = delete;
	Directory &operator=(const Directory &) = delete;
	~Directory()
	{
		std::error_code ignored;
		std::filesystem::remove_all(path_, ignored);
	}
	std::string file() const { return path_ + "/links.db"; }

private:
	std::string path_ = "/dev/shm/ostrel-bench-XXXXXX";
};

// ---- Trace points ----

// What ostrel_seterror_verbose() would be without its trace point.
__attribute__((noinline)) ostrel_error_t seterror_without(const char *file, int line, ostrel_error_t err)
{
	benchmark::DoNotOptimize(file);
	benchmark::DoNotOptimize(line);
	return err;
}

// A thousand calls a turn: one is too short to be shown.
template <auto Function>
void report_failures(benchmark::State &state)
{
	ostrel_error_t err = OSTREL_FAILURE;
	for (auto _ : state) {
		for (int64_t i = 0; i < state.range(0); i++) {
			benchmark::DoNotOptimize(err);
			benchmark::DoNotOptimize(Function("libostrel.cc", 1, err));
		}
	}
}

// ---- Records ----

void audit_record(benchmark::State &state)
{
	ostrel_db_t db;
	must(ostrel_db_open("/etc/ostrel/links.db", 0, ostrel_files_db_cmds, 0, &db) == OSTREL_SUCCESS);
	attrlist_t *idl = list_of("linkname", "eth0");
	for (auto _ : state)
		ostrel_audit(db, TRL_ostrel_update, idl, OSTREL_SUCCESS);
	attrlist_free(idl);
	ostrel_db_close(db);
}

constexpr uint16_t trusted_app = 1121; // the type of the library's records

void audit_limit(benchmark::State &state)
{
	struct {
		nlmsghdr head;
		char text[224]; // about as long as the record above
	} message = {};
	memset(message.text, 'x', sizeof(message.text) - 1);
	message.head = {sizeof(message), trusted_app, NLM_F_REQUEST | NLM_F_ACK, 1, 0};
	sockaddr_nl kernel = {};
	kernel.nl_family = AF_NETLINK;
	char answer[512];
	for (auto _ : state) {
		int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_AUDIT);
		must(sendto(fd, &message, sizeof(message), 0, reinterpret_cast<sockaddr *>(&kernel), sizeof(kernel)) ==
		     sizeof(message));
		must(recv(fd, answer, sizeof(answer), 0) > 0);
		must(close(fd) == 0);
	}
}

// ---- Updates ----

// A file of one object in memory: the record weighs most where nothing waits for a disk.
void update_file(benchmark::State &state, ostrel_db_cmds_t cmds)
{
	Directory directory;
	ostrel_db_t db;
	must(ostrel_db_open(directory.file().c_str(), 0, cmds, 0, &db) == OSTREL_SUCCESS);
	attrlist_t *idl = list_of("linkname", "eth0");
	attrlist_t *props;
	must(attrlist_alloc(&props, ATL_UNIQUE_NAME, 0) == 0);
	must(ostrel_atl_add_one_uint32(props, "mtu", 1500) == 0);
	for (auto _ : state)
		must(ostrel_db_write(db, idl, 0, props) == OSTREL_SUCCESS);
	attrlist_free(props);
	attrlist_free(idl);
	ostrel_db_close(db);
}

void update_with_record(benchmark::State &state)
{
	update_file(state, ostrel_files_db_cmds);
}

void update_limit(benchmark::State &state)
{
	struct ostrel_db_cmds unaudited = *ostrel_files_db_cmds;
	unaudited.dbc_audit = nullptr;
	update_file(state, &unaudited);
}

BENCHMARK(report_failures<seterror_without>)->Name("trace_limit")->Arg(1000);
BENCHMARK(report_failures<ostrel_seterror_verbose>)->Name("trace_disabled")->Arg(1000);
BENCHMARK(audit_limit)->UseRealTime();
BENCHMARK(audit_record)->UseRealTime();
BENCHMARK(update_limit)->UseRealTime();
BENCHMARK(update_with_record)->UseRealTime();

} // namespace
