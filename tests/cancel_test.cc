// Cancelled threads: an operation that one has begun comes to its end, and leaves no lock, no descriptor and no connection
// behind. Whatever takes a lock or holds something is here, with each back end.
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <pthread.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <meridon/covenant.h>
#include <meridon/trail.h>

#include "cairn_db.h"
#include "libostrel_log.h"
#include "served_db.h"
#include "test_enclave.h"

namespace {

struct Operation {
	const char *name;
	std::function<void()> run;
};

// Runs an operation in a thread that is cancelled already, and gives whether it came to its end before the thread went.
bool ends_though_cancelled(const Operation &operation)
{
	struct Run {
		const Operation &operation;
		bool ended = false;
	} run = {operation};
	auto body = [](void *arg) -> void * {
		auto *cancelled = static_cast<Run *>(arg);
		(void) pthread_cancel(pthread_self());
		cancelled->operation.run();
		cancelled->ended = true;
		pthread_testcancel();
		ADD_FAILURE() << "the cancellation was lost";
		return nullptr;
	};
	pthread_t thread;
	EXPECT_EQ(pthread_create(&thread, nullptr, body, &run), 0);
	void *result = nullptr;
	EXPECT_EQ(pthread_join(thread, &result), 0);
	EXPECT_EQ(result, PTHREAD_CANCELED);
	return run.ended;
}

// What a test does besides mustn't end its thread.
template <typename Work>
auto uncancelled(Work work)
{
	CancellationWaits cancellation;
	return work();
}

bool is_open(int fd)
{
	return uncancelled([fd] { return close(fd) == 0; });
}

// The first and the last time they run uncancelled: a lock that was left behind stops the last.
void expect_all_end(const std::vector<Operation> &operations)
{
	for (const Operation &operation : operations)
		operation.run();
	const int before = open_descriptors();
	for (const Operation &operation : operations)
		EXPECT_TRUE(ends_though_cancelled(operation)) << operation.name;
	for (const Operation &operation : operations)
		operation.run();
	EXPECT_LE(open_descriptors(), before);
}

class Cancelled : public testing::Test {
protected:
	void SetUp() override
	{
#ifdef __SANITIZE_ADDRESS__
		GTEST_SKIP() << "AddressSanitizer takes the unwinding of a cancelled thread for a fault";
#endif
		SKIP_UNLESS_ROOT();
	}
};

// What is done with a database, each time with the object that `id` names.
std::vector<Operation> operations_of(const std::string &name, ostrel_db_cmds_t cmds, ostrel_db_t db,
    const std::function<AttrList()> &id, const std::function<AttrList()> &other)
{
	auto visit = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *) { return 0; };
	auto good = [](ostrel_error_t result) { EXPECT_EQ(result, OSTREL_SUCCESS); };
	auto read = [=] {
		AttrList props, wanted = props_of("p=2");
		attrlist_t *filled = wanted.get();
		good(ostrel_db_read(db, id().get(), 0, props.out()));
		good(ostrel_db_get_object_props(db, id().get(), 0, &filled));
	};
	return {
	    {"open and close", [=] { EXPECT_TRUE(open_database(name, cmds)); }},
	    {"write", [=] { good(ostrel_db_write(db, id().get(), 0, props_of("p=1").get())); }},
	    {"read", read},
	    {"walk", [=] { good(ostrel_db_walk(db, id().get(), 0, visit, nullptr, nullptr, nullptr)); }},
	    {"rename", [=] { good(ostrel_db_rename(db, id().get(), 0, other().get())); }},
	    {"remove", [=] { good(ostrel_db_remove(db, other().get(), 0)); }},
	    {"the right to read", [=] { good(ostrel_db_check_auth(db, B_FALSE)); }},
	};
}

} // namespace

TEST_F(Cancelled, OperationsOnADatabaseEnd)
{
	ServedFile file;
	std::optional<LocalServer> server(std::in_place, file);
	auto id = [] { return idl_of("a=1"); };
	auto other = [] { return idl_of("a=2"); };
	Database plain = open_database(file.path);
	expect_all_end(operations_of(file.path, ostrel_files_db_cmds, plain.get(), id, other));

	Database served = open_database(file.hatch, ostrel_hatches_db_cmds);
	auto operations = operations_of(file.hatch, ostrel_hatches_db_cmds, served.get(), id, other);
	auto ask_a_new_server = [&] {
		uncancelled([&] { return server.reset(), server.emplace(file).db(); });
		EXPECT_EQ(ostrel_db_check_auth(served.get(), B_TRUE), OSTREL_SUCCESS);
	};
	operations.push_back({"the right, by a new server", ask_a_new_server});
	expect_all_end(operations);

	CairnDaemon cairn;
	ASSERT_TRUE(cairn.ready);
	CairnDb db = open_cairn();
	expect_all_end(operations_of(
	    test_instance, ostrel_cairn_db_cmds, db.get(), [] { return group_of("g:t"); },
	    [] { return group_of("h:t"); }));
}

TEST_F(Cancelled, OperationsBesideThemEnd)
{
	ServedFile file;
	Database db = open_database(file.path);
	Scratch root;
	setenv("MERIDON_ROOT", root.directory().c_str(), 1);
	(void) std::filesystem::create_directory(root.path("dev"));
	(void) root.write("dev/msglog", "");
	expect_all_end({
	    {"a server",
		[&] {
			int hatch = -1;
			EXPECT_EQ(
			    ostrel_hatchserver_create(file.hatch.c_str(), "", "", db.get(), &hatch), OSTREL_SUCCESS);
			ostrel_hatchserver_destroy(file.hatch.c_str(), hatch);
		}},
	    {"files set aside",
		[&] {
			uncancelled([&] { return root.write("old", ""); });
			ostrel_make_files_obsolete(root.directory().c_str(), "^old$");
			EXPECT_TRUE(root.has("old.obsolete"));
		}},
	    {"a text", [] { EXPECT_STREQ(ostrel_strerror(OSTREL_SUCCESS), "no error"); }},
	    {"the log",
		[] {
			for (const char *type : {"msglog", "syslog"}) {
				ostrel_log_open(type);
				ostrel_log(LOG_ERR, "%s", "text");
			}
			ostrel_log_close();
		}},
	});
	unsetenv("MERIDON_ROOT");
}

TEST_F(Cancelled, OperationsOfThePlatformEnd)
{
	TestEnclave enclave;
	ServedFile file;
	enclave_info_t info = {};
	ASSERT_EQ(enclave_registry_get(enclave.id(), &info), 0);
	file.write("");
	enclave.write("/file", "");
	info.ei_id = 77;
	strcpy(info.ei_name, "other");
	expect_all_end({
	    {"a hatch",
		[&] {
			const std::string path = uncancelled([&] { return attachable(file.scratch.path("hatch")); });
			int hatch = hatch_create(obey, nullptr, HATCH_REFUSE_DESC);
			EXPECT_EQ(fattach(hatch, path.c_str()), 0);
			int client = uncancelled([&] { return open_hatch(path).release(); });
			hatch_info_t server;
			EXPECT_EQ(call(client, std::string("echo")).error, 0);
			EXPECT_EQ(hatch_info(client, &server), 0);
			hatch_forget(client);
			EXPECT_TRUE(is_open(client));
			EXPECT_EQ(hatch_revoke(hatch), 0);
			(void) fdetach(path.c_str());
		}},
	    {"the registry",
		[&] {
			enclave_info_t *all = nullptr;
			size_t count = 0;
			EXPECT_EQ(enclave_registry_add(&info), 0);
			EXPECT_EQ(enclave_registry_replace(&info), 0);
			EXPECT_EQ(enclave_registry_find("other", &info), 0);
			EXPECT_EQ(enclave_registry_list(&all, &count), 0);
			free(all);
			EXPECT_EQ(enclave_registry_remove(info.ei_id), 0);
		}},
	    {"an enclave",
		[&] {
			char text[1024];
			uint64_t capabilities;
			EXPECT_GT(enclave_getattr(enclave.id(), ENCLAVE_ATTR_ROOT, text, sizeof(text)), 0);
			EXPECT_GT(getenclavenamebyid(enclave.id(), text, sizeof(text)), 0);
			EXPECT_EQ(_enclave_capabilities(enclave.id(), &capabilities), 0);
			EXPECT_EQ(_enclave_has_process(enclave.id(), getpid()), 0);
			EXPECT_TRUE(is_open(_enclave_open(file.path.c_str())));
			EXPECT_TRUE(is_open(_enclave_open_in(enclave.id(), enclave.host_path("/file").c_str())));
			EXPECT_TRUE(is_open(_enclave_hold(enclave.id(), 1)));
		}},
	    {"the audit trail",
		[] {
			trl_session_data_t *session = nullptr;
			if (trl_start_session(&session, nullptr, 0) == 0)
				(void) trl_end_session(session);
		}},
	    {"a template", [] { EXPECT_TRUE(is_open(covenant_open(COVENANT_PROCESS_TEMPLATE, O_RDWR))); }},
	});
}
