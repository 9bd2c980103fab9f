// Cancelled threads: an operation that one has begun comes to its end, and leaves no lock, no descriptor and no connection
// behind. Whatever takes a lock or holds something is here, with each back end.
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <pthread.h>
#include <string>

#include <gtest/gtest.h>

#include <meridon/covenant.h>
#include <meridon/trail.h>

#include "cairn_db.h"
#include "libostrel_log.h"
#include "served_db.h"
#include "test_enclave.h"

namespace {

// Operations one after another; each says first what it is.
using Operations = std::function<void(std::string &now)>;

// Runs operations in a thread that is cancelled already: all of them come to their end before the thread goes.
void expect_end_though_cancelled(const Operations &operations)
{
	struct Run {
		const Operations &operations;
		std::string now;
	} run = {operations, ""};
	auto body = [](void *arg) -> void * {
		auto *cancelled = static_cast<Run *>(arg);
		(void) pthread_cancel(pthread_self());
		cancelled->operations(cancelled->now);
		cancelled->now = "the end";
		pthread_testcancel();
		ADD_FAILURE() << "the cancellation was lost";
		return nullptr;
	};
	pthread_t thread;
	EXPECT_EQ(pthread_create(&thread, nullptr, body, &run), 0);
	void *result = nullptr;
	EXPECT_EQ(pthread_join(thread, &result), 0);
	EXPECT_EQ(result, PTHREAD_CANCELED);
	EXPECT_EQ(run.now, "the end") << "where the thread went";
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
void expect_all_end(const Operations &operations)
{
	std::string now;
	operations(now);
	const int before = open_descriptors();
	expect_end_though_cancelled(operations);
	operations(now);
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

void expect_good(ostrel_error_t result)
{
	EXPECT_EQ(result, OSTREL_SUCCESS);
}

// What is done with a database, each time with the object that `id` names.
Operations operations_of(const std::string &name, ostrel_db_cmds_t cmds, ostrel_db_t db,
    const std::function<AttrList()> &id, const std::function<AttrList()> &other)
{
	return [=](std::string &now) {
		auto visit = [](ostrel_db_t, attrlist_t *, attrlist_t *, uint64_t, void *) { return 0; };
		now = "open and close";
		EXPECT_TRUE(open_database(name, cmds));
		now = "write";
		expect_good(ostrel_db_write(db, id().get(), 0, props_of("p=1").get()));
		now = "read";
		AttrList props, wanted = props_of("p=2");
		attrlist_t *filled = wanted.get();
		expect_good(ostrel_db_read(db, id().get(), 0, props.out()));
		expect_good(ostrel_db_get_object_props(db, id().get(), 0, &filled));
		now = "walk";
		expect_good(ostrel_db_walk(db, id().get(), 0, visit, nullptr, nullptr, nullptr));
		now = "rename";
		expect_good(ostrel_db_rename(db, id().get(), 0, other().get()));
		now = "remove";
		expect_good(ostrel_db_remove(db, other().get(), 0));
		now = "the right to read";
		expect_good(ostrel_db_check_auth(db, B_FALSE));
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
	expect_all_end(operations_of(file.hatch, ostrel_hatches_db_cmds, served.get(), id, other));
	expect_all_end([&](std::string &now) {
		now = "the right, by a new server";
		uncancelled([&] { return server.reset(), server.emplace(file).db(); });
		expect_good(ostrel_db_check_auth(served.get(), B_TRUE));
	});

	CairnDaemon cairn;
	ASSERT_TRUE(cairn.ready);
	CairnDb db = open_cairn();
	auto group = [] { return group_of("g:t"); };
	auto other_group = [] { return group_of("h:t"); };
	expect_all_end(operations_of(test_instance, ostrel_cairn_db_cmds, db.get(), group, other_group));
}

TEST_F(Cancelled, OperationsBesideThemEnd)
{
	ServedFile file;
	Database db = open_database(file.path);
	Scratch root;
	setenv("MERIDON_ROOT", root.directory().c_str(), 1);
	(void) std::filesystem::create_directory(root.path("dev"));
	(void) root.write("dev/msglog", "");
	expect_all_end([&](std::string &now) {
		now = "a server";
		int hatch = -1;
		expect_good(ostrel_hatchserver_create(file.hatch.c_str(), "", "", db.get(), &hatch));
		ostrel_hatchserver_destroy(file.hatch.c_str(), hatch);
		now = "files set aside";
		uncancelled([&] { return root.write("old", ""); });
		ostrel_make_files_obsolete(root.directory().c_str(), "^old$");
		EXPECT_TRUE(root.has("old.obsolete"));
		now = "a text";
		EXPECT_STREQ(ostrel_strerror(OSTREL_SUCCESS), "no error");
		now = "the log";
		for (const char *type : {"msglog", "syslog"}) {
			ostrel_log_open(type);
			ostrel_log(LOG_ERR, "%s", "text");
		}
		ostrel_log_close();
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
	expect_all_end([&](std::string &now) {
		now = "a hatch";
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

		now = "the registry";
		enclave_info_t *all = nullptr;
		size_t count = 0;
		EXPECT_EQ(enclave_registry_add(&info), 0);
		EXPECT_EQ(enclave_registry_replace(&info), 0);
		EXPECT_EQ(enclave_registry_find("other", &info), 0);
		EXPECT_EQ(enclave_registry_list(&all, &count), 0);
		free(all);
		EXPECT_EQ(enclave_registry_remove(info.ei_id), 0);

		now = "an enclave";
		char text[1024];
		uint64_t capabilities;
		EXPECT_GT(enclave_getattr(enclave.id(), ENCLAVE_ATTR_ROOT, text, sizeof(text)), 0);
		EXPECT_GT(getenclavenamebyid(enclave.id(), text, sizeof(text)), 0);
		EXPECT_EQ(_enclave_capabilities(enclave.id(), &capabilities), 0);
		EXPECT_EQ(_enclave_has_process(enclave.id(), getpid()), 0);
		EXPECT_TRUE(is_open(_enclave_open(file.path.c_str())));
		EXPECT_TRUE(is_open(_enclave_open_in(enclave.id(), enclave.host_path("/file").c_str())));
		EXPECT_TRUE(is_open(_enclave_hold(enclave.id(), 1)));

		now = "the audit trail";
		trl_session_data_t *session = nullptr;
		if (trl_start_session(&session, nullptr, 0) == 0)
			(void) trl_end_session(session);

		now = "a template";
		EXPECT_TRUE(is_open(covenant_open(COVENANT_PROCESS_TEMPLATE, O_RDWR)));
	});
}
