// Batches and watches of a database that another process serves.
#include <cerrno>
#include <cstring>
#include <map>
#include <poll.h>
#include <pwd.h>
#include <random>
#include <sys/mman.h>
#include <sys/resource.h>

#include <gtest/gtest.h>
#include <meridon/trail.h>

#include "libostrel_hatches_live.h"
#include "libostrelx.h"
#include "line_lists.h"
#include "served_db.h"

namespace {

using TestBatch = Handle<struct ostrelx_batch, ostrelx_batch_free>;
using Held = std::map<std::string, std::string>;

// Applies the events of a watch in their order.
class Watcher {
public:
	explicit Watcher(ostrel_db_t db)
	{
		EXPECT_EQ(ostrelx_watch_open(db, nullptr, 0, nullptr, &watch_), OSTREL_SUCCESS);
	}
	Watcher(const Watcher &) = delete;
	Watcher &operator=(const Watcher &) = delete;
	~Watcher() { ostrelx_watch_close(watch_); }

	// Takes what there is at present. Each kind of event is a letter of the result.
	std::string take()
	{
		std::string kinds;
		ostrelx_event_t event;
		while (ostrelx_watch_next(watch_, &event) == OSTREL_SUCCESS) {
			kinds += " RP-SCL"[event.kind];
			lost_ = event.kind == OSTRELX_EVENT_LOST ? event.error : lost_;
			if (event.kind == OSTRELX_EVENT_RESET)
				objects_.clear();
			else if (event.kind == OSTRELX_EVENT_PUT)
				objects_[text_of(event.idl)] = text_of(event.props);
			else if (event.kind == OSTRELX_EVENT_REMOVE)
				objects_.erase(text_of(event.idl));
		}
		return kinds;
	}
	bool is_readable(int timeout_ms) const
	{
		struct pollfd look = {ostrelx_watch_fd(watch_), POLLIN, 0};
		return poll(&look, 1, timeout_ms) == 1;
	}
	// Waits for what is to come; by the descriptor alone.
	template <typename Done>
	bool until(Done done)
	{
		for (int i = 0; i < 2000 && !done(); i++) {
			if (!is_readable(20'000))
				return false;
			(void) take();
		}
		return done();
	}
	bool sees(const Held &wanted)
	{
		return until([&] { return objects_ == wanted; });
	}
	bool loses(ostrelx_error_t error)
	{
		return until([&] { return lost_ == error; });
	}
	const Held &objects() const { return objects_; }

private:
	ostrelx_watch_t watch_ = nullptr;
	Held objects_;
	ostrelx_error_t lost_ = OSTREL_SUCCESS;
};

Held held(const std::string &path)
{
	TestDb db(path);
	Held objects;
	auto add = [](ostrel_db_t, attrlist_t *idl, attrlist_t *props, uint64_t, void *arg) {
		(*static_cast<Held *>(arg))[text_of(idl)] = text_of(props);
		return 0;
	};
	EXPECT_EQ(ostrel_db_walk(db, nullptr, OSTREL_FLAG_WITH_PROPS, add, nullptr, &objects, nullptr), OSTREL_SUCCESS);
	return objects;
}

class LiveServed : public testing::Test {
protected:
	void SetUp() override { SKIP_UNLESS_ROOT(); }
	void TearDown() override { (void) unsetenv("MERIDON_ROOT"); }
	Database open() const { return open_database(file_.hatch, ostrel_hatches_db_cmds); }
	static TestBatch begin()
	{
		TestBatch batch;
		EXPECT_EQ(ostrelx_batch_create(batch.out()), OSTREL_SUCCESS);
		return batch;
	}
	static TestBatch write_of(attrlist_t *idl)
	{
		TestBatch batch = begin();
		EXPECT_EQ(ostrelx_batch_write(batch.get(), idl, 0, props("x=int32,2").get()), OSTREL_SUCCESS);
		return batch;
	}

	ServedFile file_;
};

int add_one(attrlist_t *, attrlist_t *list, boolean_t, void *)
{
	int32_t value = 0;
	if (ostrel_atl_get_one_int32(list, "x", &value) != OSTREL_SUCCESS)
		return 1;
	return static_cast<int>(ostrel_atl_add_one_int32(list, "x", value + 1));
}

TEST_F(LiveServed, OfClientsThatEachAddOneNoneIsLost)
{
	constexpr int clients = 8, turns = 40;
	file_.write("n=a;\tx=int32,0;\n");
	Process server = serve_file(file_);
	std::vector<Process> children;
	for (int child = 0; child < clients; child++)
		children.emplace_back([&] {
			Database db = open();
			int failed = 0;
			for (int i = 0; i < turns; i++)
				failed += ostrelx_modify(db.get(), ids("n=a").get(), 0, add_one, nullptr, nullptr) !=
					  OSTREL_SUCCESS;
			return failed;
		});
	for (Process &child : children)
		EXPECT_EQ(child.wait(), 0);
	EXPECT_EQ(file_.text(), "n=a;\tx=int32," + std::to_string(clients * turns) + ";\n");
}

TEST_F(LiveServed, ABatchIsAllOrNothingAndLeavesItsRecords)
{
	static std::atomic<int> good, bad;
	good = bad = 0;
	const std::string before = "n=a;\tx=int32,1;\nn=b;\tx=int32,1;\n";
	file_.write(before);
	LocalServer server(file_);
	Database db = open();
	char whole[OSTRELX_VERSION_SIZE], same[OSTRELX_VERSION_SIZE];
	ASSERT_EQ(ostrelx_db_version(db.get(), whole), OSTREL_SUCCESS);
	ASSERT_EQ(ostrelx_db_version(server.db(), same), OSTREL_SUCCESS);
	EXPECT_STREQ(whole, same);
	trl_watch(
	    [](void *, trl_event_t, const trl_object_t *, int status, int) { (status == 0 ? good : bad)++; }, nullptr);
	auto steps = [](const char *missing) {
		TestBatch batch = write_of(ids("n=a").get());
		EXPECT_EQ(ostrelx_batch_rename(batch.get(), ids("n=b").get(), 0, ids("n=c").get()), OSTREL_SUCCESS);
		EXPECT_EQ(ostrelx_batch_remove(batch.get(), ids(missing).get(), 0), OSTREL_SUCCESS);
		return batch;
	};
	int failed = -2;
	TestBatch batch = steps("n=nobody");
	EXPECT_EQ(ostrelx_commit(db.get(), batch.get(), &failed), OSTREL_NOT_FOUND);
	EXPECT_EQ(failed, 2);
	EXPECT_EQ(file_.text(), before);
	batch = steps("n=c");
	EXPECT_EQ(ostrelx_batch_expect_db(batch.get(), "f:0"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrelx_commit(db.get(), batch.get(), &failed), OSTRELX_CONFLICT);
	EXPECT_EQ(failed, 0);
	EXPECT_EQ(file_.text(), before);
	EXPECT_EQ(bad, 6);
	EXPECT_EQ(good, 0);
	batch = steps("n=c");
	EXPECT_EQ(ostrelx_batch_expect_db(batch.get(), whole), OSTREL_SUCCESS);
	EXPECT_EQ(ostrelx_commit(db.get(), batch.get(), &failed), OSTREL_SUCCESS);
	EXPECT_EQ(failed, -1);
	EXPECT_EQ(file_.text(), "n=a;\tx=int32,2;\n");
	EXPECT_EQ(good, 3);
	trl_watch(nullptr, nullptr);
}

TEST_F(LiveServed, AtRestAWatchHoldsWhatIsThereWhateverBecomesOfTheServer)
{
	std::mt19937 random(20261125);
	auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
	file_.write("");
	Process server = serve_file(file_);
	Database db = open(), writer = open();
	Watcher watcher(db.get());
	EXPECT_TRUE(watcher.sees({}));
	int killed = 0;
	for (int round = 0; round < 60; round++) {
		for (int change = pick(8); change >= 0; change--) {
			AttrList id = ids("n=" + std::to_string(pick(4))),
				 value = props("x=int32," + std::to_string(pick(99)));
			const bool is_away = pick(3) == 0; // written beside the server
			TestDb beside(file_.path);
			ostrel_db_t by = is_away ? static_cast<ostrel_db_t>(beside) : writer.get();
			if (pick(3) == 0)
				(void) ostrel_db_remove(by, id.get(), 0); // it may not be there
			else
				EXPECT_EQ(ostrel_db_write(by, id.get(), 0, value.get()), OSTREL_SUCCESS);
			if (pick(4) == 0)
				(void) watcher.take();
			if (pick(12) == 0) {
				server.kill();
				killed++;
				if (pick(2) == 0)
					(void) watcher.take();
				server = serve_file(file_);
			}
		}
		ASSERT_TRUE(watcher.sees(held(file_.path))) << "round " << round;
	}
	EXPECT_GT(killed, 5);
	server.kill();
	EXPECT_TRUE(watcher.loses(OSTREL_FAILURE));
}

TEST_F(LiveServed, AThousandWaitersAreToldAndTakeNoThread)
{
	constexpr size_t count = 1000;
	struct rlimit limit;
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	if (limit.rlim_max < 4 * count || sanitized)
		GTEST_SKIP() << "not so many descriptors";
	(void) allow_descriptors(4 * count);
	file_.write("");
	Process server = serve_file(file_);
	Fd hatch = open_hatch(file_.hatch);
	LiveHead head = {static_cast<uint32_t>(LiveRequest::Wait), 0};
	hatch_arg_t arg = {reinterpret_cast<char *>(&head), sizeof head, nullptr, 0, nullptr, 0};
	// Without a position: answered at once, with one.
	ASSERT_EQ(hatch_call_channel(hatch.get(), ostrel_live_channel, 20, &arg), 0);
	std::string request(arg.data_ptr, arg.data_size); // an answer without a failure has the form of a request
	std::vector<hatch_pending_t *> waits(count);
	arg = {request.data(), request.size(), nullptr, 0, nullptr, 0};
	for (hatch_pending_t *&wait : waits)
		ASSERT_EQ(hatch_begin(hatch.get(), ostrel_live_channel, &arg, &wait), 0);
	Database db = open();
	ASSERT_EQ(ostrel_db_write(db.get(), ids("n=a").get(), 0, props("x=int32,1").get()), OSTREL_SUCCESS);
	for (hatch_pending_t *wait : waits) {
		struct pollfd look = {hatch_pending_fd(wait), POLLIN, 0};
		char room[512];
		hatch_arg_t answer = {nullptr, 0, nullptr, 0, room, sizeof room};
		ASSERT_EQ(poll(&look, 1, 20'000), 1);
		ASSERT_EQ(hatch_finish(wait, &answer), 0) << errno;
		EXPECT_NE(std::string(answer.data_ptr, answer.data_size), request);
		hatch_cancel(wait);
	}
	EXPECT_LE(entries_of("/proc/" + std::to_string(server.pid()) + "/task").size(), 8U);
}

TEST_F(LiveServed, RightsHoldForBatchesAndAreAskedAgainAtEachAnswer)
{
	const struct passwd *daemon = getpwnam("daemon");
	if (daemon == nullptr)
		GTEST_SKIP() << "no such user";
	const uid_t user = daemon->pw_uid;
	file_.write("n=a;\tx=int32,1;\n");
	file_.write_rights("");
	Process server = serve_file(file_, "ostrel.read", "ostrel.write");
	AttrList away = ids("n=a"), textless;
	ASSERT_EQ(attrlist_add_string(away.get(), OSTREL_ID_DB_NAME, "/etc/passwd"), 0);
	ASSERT_EQ(attrlist_alloc(textless.out(), ATL_UNIQUE_NAME, 0), 0);
	ASSERT_EQ(attrlist_add_int64(textless.get(), "n", 1), 0);
	TestBatch plain = write_of(ids("n=b").get()), leaving = write_of(away.get()), unseen = write_of(textless.get());
	thread_as(user, [&] {
		Database db = open();
		char version[OSTRELX_VERSION_SIZE];
		Watcher watcher(db.get());
		EXPECT_EQ(ostrelx_commit(db.get(), plain.get(), nullptr), OSTREL_EPERM);
		EXPECT_EQ(ostrelx_db_version(db.get(), version), OSTREL_EPERM);
		EXPECT_TRUE(watcher.loses(OSTREL_EPERM));
		EXPECT_TRUE(watcher.objects().empty());
	});
	file_.write_rights("daemon: ostrel.read, ostrel.write\n");
	Database db = open();
	Notifier *notifier = nullptr;
	bool changed = false;
	thread_as(user, [&] {
		int failed = -1;
		EXPECT_EQ(ostrelx_commit(db.get(), plain.get(), nullptr), OSTREL_SUCCESS);
		EXPECT_EQ(ostrelx_commit(db.get(), leaving.get(), nullptr), OSTREL_EPERM);
		EXPECT_EQ(ostrelx_commit(db.get(), unseen.get(), &failed), OSTREL_INVALID_ARG);
		EXPECT_EQ(failed, 0);
		// A wait that is parked with the right.
		ASSERT_EQ(ostrel_hatches_db_cmds->dbc_notify(db.get(), nullptr, &notifier), OSTREL_SUCCESS);
		EXPECT_TRUE(eventually([&] { return notifier->look(&changed) == OSTREL_SUCCESS && changed; }));
		(void) usleep(20'000);
		EXPECT_EQ(notifier->look(&changed), OSTREL_SUCCESS);
	});
	file_.write_rights("");
	EXPECT_EQ(notifier->look(&changed), OSTREL_SUCCESS);
	file_.write("n=c;\tx=int32,1;\n");
	EXPECT_TRUE(eventually([&] { return notifier->look(&changed) == OSTREL_EPERM; }));
	notifier->end();
}

TEST_F(LiveServed, AServerThatKnowsNoneOfItServesAsEver)
{
	file_.write("n=a;\tx=int32,1;\n");
	Database served = open_database(file_.path);
	std::filesystem::create_directories(file_.scratch.path("hatches"));
	LocalHatch old(attachable(file_.hatch), ostrel_hatch_handler, served.get());
	{
		Database db = open();
		char version[OSTRELX_VERSION_SIZE];
		EXPECT_EQ(ostrelx_commit(db.get(), write_of(ids("n=b").get()).get(), nullptr), OSTREL_NOTSUP);
		EXPECT_EQ(ostrelx_db_version(db.get(), version), OSTREL_NOTSUP);
		Watcher watcher(db.get());
		EXPECT_TRUE(watcher.loses(OSTREL_NOTSUP));
		(void) watcher.take();
		(void) watcher.is_readable(200);
		EXPECT_EQ(watcher.take(), "") << "it is said once";
		EXPECT_EQ(ostrel_db_write(db.get(), ids("n=b").get(), 0, props("x=int32,1").get()), OSTREL_SUCCESS);
		// One that knows it takes its place.
		old.revoke();
		LocalServer server(file_);
		EXPECT_TRUE(watcher.sees(held(file_.path)));
	}
}

std::string live_bytes(LiveRequest request, uint32_t second = 0, const std::string &rest = "")
{
	const LiveHead head = {static_cast<uint32_t>(request), second};
	return std::string(reinterpret_cast<const char *>(&head), sizeof head) + rest;
}

TEST_F(LiveServed, BytesOfStrangersAreRefusedAndHarmNobody)
{
	file_.write("n=a;\tx=int32,1;\n");
	const std::string before = file_.text();
	LocalServer server(file_);
	Fd hatch = open_hatch(file_.hatch);
	AttrList list = ids("n=a"), items, item;
	ASSERT_EQ(attrlist_alloc(item.out(), ATL_UNIQUE_NAME, 0), 0);
	ASSERT_EQ(attrlist_add_uint32(item.get(), "kind", 9), 0);
	ASSERT_EQ(attrlist_alloc(items.out(), ATL_UNIQUE_NAME, 0), 0);
	attrlist_t *only = item.get();
	ASSERT_EQ(attrlist_add_attrlist_array(items.get(), "items", &only, 1), 0);
	const std::string batch = packed(items.get()), other = packed(list.get());
	const struct {
		std::string bytes;
		uint32_t result;
	} rows[] = {
	    {"", OSTREL_INVALID_ARG}, {"1234567", OSTREL_INVALID_ARG}, {live_bytes(LiveRequest::Hello), OSTREL_SUCCESS},
	    {live_bytes(LiveRequest::Hello, 1), OSTREL_INVALID_ARG},
	    {live_bytes(static_cast<LiveRequest>(0)), OSTREL_NOTSUP},
	    {live_bytes(static_cast<LiveRequest>(UINT32_MAX)), OSTREL_NOTSUP},
	    {live_bytes(LiveRequest::Commit), OSTREL_INVALID_ARG},
	    {live_bytes(LiveRequest::Commit, 0, "nothing packed"), OSTREL_INVALID_ARG},
	    {live_bytes(LiveRequest::Commit, 0, other), OSTREL_INVALID_ARG},
	    {live_bytes(LiveRequest::Commit, 0, batch), OSTREL_INVALID_ARG},
	    {live_bytes(LiveRequest::Commit, 0, batch.substr(0, batch.size() - 4)), OSTREL_INVALID_ARG},
	    {live_bytes(LiveRequest::Version, 0, other + "x"), OSTREL_INVALID_ARG},
	    {live_bytes(LiveRequest::Wait, 0, other), OSTREL_SUCCESS}, // without a position
	};
	for (const auto &row : rows) {
		std::string bytes = row.bytes;
		hatch_arg_t arg = {bytes.data(), bytes.size(), nullptr, 0, nullptr, 0};
		ASSERT_EQ(hatch_call_channel(hatch.get(), ostrel_live_channel, 20, &arg), 0) << bytes;
		LiveHead head;
		ASSERT_GE(arg.data_size, sizeof head);
		memcpy(&head, arg.data_ptr, sizeof head);
		EXPECT_EQ(head.result, row.result) << bytes;
		(void) munmap(arg.rbuf, arg.rsize);
	}
	EXPECT_EQ(file_.text(), before);
	hatch_forget(hatch.get());
}

// What a server says that isn't one of ours.
void say(void *cookie, char *, size_t, hatch_desc_t *, unsigned int)
{
	const auto *text = static_cast<const std::string *>(cookie);
	(void) hatch_return(text->data(), text->size(), nullptr, 0);
}

TEST_F(LiveServed, AnswersOfStrangersAreFailures)
{
	file_.write("");
	Database served = open_database(file_.path);
	AttrList odd;
	ASSERT_EQ(attrlist_alloc(odd.out(), ATL_UNIQUE_NAME, 0), 0);
	ASSERT_EQ(attrlist_add_string(odd.get(), ostrel_live_version, std::string(64, 'v').c_str()), 0);
	ASSERT_EQ(attrlist_add_int32(odd.get(), ostrel_live_failed, 7), 0);
	ASSERT_EQ(attrlist_add_uint64(odd.get(), ostrel_live_position, 7), 0);
	std::filesystem::create_directories(file_.scratch.path("hatches"));
	for (const std::string &tail : {std::string(), std::string("no list"), packed(odd.get())}) {
		for (const LiveRequest request : {LiveRequest::Version, LiveRequest::Wait, LiveRequest::Commit}) {
			std::string text = live_bytes(request, request == LiveRequest::Commit ? 77 : 0, tail);
			LocalHatch liar(attachable(file_.hatch), ostrel_hatch_handler, served.get());
			ASSERT_EQ(hatch_channel(liar.fd(), ostrel_live_channel, say, &text, 0), 0);
			Database db = open();
			int failed = -1;
			char version[OSTRELX_VERSION_SIZE];
			TestBatch batch = write_of(ids("n=a").get());
			EXPECT_NE(ostrelx_commit(db.get(), batch.get(), &failed), OSTREL_SUCCESS);
			EXPECT_EQ(failed, -1);
			EXPECT_EQ(ostrelx_db_version(db.get(), version), OSTREL_FAILURE);
			Watcher watcher(db.get());
			EXPECT_TRUE(watcher.loses(OSTREL_FAILURE)) << tail;
		}
	}
}

} // namespace
