// Watches: at rest, what their events built is what the store holds, whatever came between.
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <poll.h>
#include <random>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "child.h"
#include "libostrelx.h"
#include "line_lists.h"
#include "scratch.h"
#include "test_enclave.h"

namespace fs = std::filesystem;

namespace {

int inotify_error = 0; // unless 0, inotify has no watches to give

// Applies the events of a watch in their order.
class Watcher {
public:
	explicit Watcher(ostrel_db_t db, const char *token = nullptr, uint64_t flags = 0)
	{
		EXPECT_EQ(ostrelx_watch_open(db, nullptr, flags, token, &watch_), OSTREL_SUCCESS);
	}
	Watcher(Watcher &&other) noexcept
	    : watch_(std::exchange(other.watch_, nullptr)), objects_(std::move(other.objects_))
	{}
	Watcher(const Watcher &) = delete;
	Watcher &operator=(const Watcher &) = delete;
	~Watcher() { ostrelx_watch_close(watch_); }

	// Takes what there is at present. Each kind of event is a letter of the result.
	std::string take()
	{
		std::string kinds;
		ostrelx_event_t event;
		while ((result_ = ostrelx_watch_next(watch_, &event)) == OSTREL_SUCCESS) {
			const AllocFaultPause pause;
			kinds += " RP-SCL"[event.kind];
			apply(event);
		}
		return kinds;
	}
	ostrelx_error_t result() const { return result_; } // that ended the last take()
	bool is_readable(int timeout_ms = 0) const
	{
		struct pollfd look = {ostrelx_watch_fd(watch_), POLLIN, 0};
		return poll(&look, 1, timeout_ms) == 1;
	}
	const std::map<std::string, std::string> &objects() const { return objects_; }
	const std::string &token() const { return token_; }

private:
	void apply(const ostrelx_event_t &event)
	{
		if (event.kind == OSTRELX_EVENT_RESET)
			objects_.clear();
		else if (event.kind == OSTRELX_EVENT_PUT)
			objects_[text_of(event.idl)] = show_lists(event.idl, event.props) + event.version;
		else if (event.kind == OSTRELX_EVENT_REMOVE)
			EXPECT_EQ(objects_.erase(text_of(event.idl)), 1U);
		else if (event.kind == OSTRELX_EVENT_SYNCED) {
			token_ = event.token;
			EXPECT_EQ(contents_.try_emplace(token_, objects_).first->second, objects_);
		}
	}

	ostrelx_watch_t watch_ = nullptr;
	std::map<std::string, std::string> objects_;
	std::string token_;
	std::map<std::string, std::map<std::string, std::string>> contents_; // by their tokens
	ostrelx_error_t result_ = OSTREL_SUCCESS;
};

// What the store holds, read by a watch that begins now; nothing if it can't be read: links may lead in a circle.
std::optional<std::map<std::string, std::string>> held(ostrel_db_t db)
{
	Watcher fresh(db);
	if (fresh.take().back() == 'S')
		return fresh.objects();
	return std::nullopt;
}

class LiveWatch : public testing::Test {
protected:
	Scratch scratch;
	std::string path = scratch.path("a/b/db");
	void SetUp() override { fs::create_directories(scratch.path("a/b")); }
	void put(const std::string &text) { scratch.write("a/b/db", text); }
};

TEST_F(LiveWatch, HandsOutWhatChangedAndNothingElse)
{
	TestDb db(path);
	Watcher watcher(db);
	EXPECT_TRUE(watcher.is_readable());
	EXPECT_EQ(watcher.take(), "RS"); // there is no file
	EXPECT_FALSE(watcher.is_readable());
	const std::string empty = watcher.token();
	ASSERT_EQ(ostrel_db_write(db, ids("n=a").get(), 0, props("x=int32,1").get()), OSTREL_SUCCESS);
	ASSERT_EQ(ostrel_db_write(db, ids("n=b").get(), 0, props("x=int32,1").get()), OSTREL_SUCCESS);
	EXPECT_TRUE(watcher.is_readable());
	EXPECT_EQ(watcher.take(), "PPS");
	ASSERT_EQ(ostrel_db_write(db, ids("n=a").get(), 0, props("x=int32,2").get()), OSTREL_SUCCESS);
	ASSERT_EQ(ostrel_db_remove(db, ids("n=b").get(), 0), OSTREL_SUCCESS);
	EXPECT_EQ(watcher.take(), "P-S");
	ASSERT_EQ(ostrel_db_write(db, ids("n=a").get(), 0, props("x=int32,2").get()), OSTREL_SUCCESS);
	EXPECT_EQ(watcher.take(), ""); // the same content
	EXPECT_FALSE(watcher.is_readable());
	EXPECT_EQ(watcher.objects(), held(db));
	// A token of this content, and one of another.
	EXPECT_EQ(Watcher(db, watcher.token().c_str()).take(), "S");
	EXPECT_EQ(Watcher(db, empty.c_str()).take(), "RPS");
	EXPECT_EQ(Watcher(db, "no token").take(), "RPS");
	Watcher bare(db, nullptr, OSTRELX_WATCH_BARE);
	EXPECT_EQ(bare.take(), "R");
	put("");
	EXPECT_EQ(bare.take(), "C");
	EXPECT_EQ(watcher.take(), "-S");
}

class LiveWatchStorm : public LiveWatch, public testing::WithParamInterface<bool> {};

TEST_P(LiveWatchStorm, AtRestHoldsWhatIsThereWhateverCameBetween)
{
	std::mt19937 random(20261125);
	auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
	ostrel_db_t db;
	ASSERT_EQ(ostrel_db_open(path.c_str(), 0, GetParam() ? ostrel_rawfiles_db_cmds : ostrel_files_db_cmds, 0, &db),
	    OSTREL_SUCCESS);
	std::optional<Watcher> watching(db);
	Watcher &watcher = *watching;
	int told = 0, compared = 0;
	for (int round = 0; round < 200; round++) {
		for (int change = pick(30); change >= 0; change--) {
			std::error_code error;
			const std::string line =
			    "n=" + std::to_string(pick(4)) + ";\tx=int32," + std::to_string(pick(9)) + ";\n";
			const std::string spare = scratch.path("spare" + std::to_string(pick(2)));
			switch (pick(9)) {
			case 0:
				fs::rename(scratch.path(pick(2) != 0 ? "a" : "a/b"), spare, error);
				break;
			case 1:
				fs::rename(spare, scratch.path(pick(2) != 0 ? "a" : "a/b"), error);
				break;
			case 2:
				fs::create_directories(scratch.path("a/b"), error);
				break;
			case 3:
				fs::remove_all(pick(4) == 0 ? scratch.path("a") : spare, error);
				break;
			case 4:
				fs::create_symlink(spare, scratch.path(pick(2) != 0 ? "a" : "a/b"), error);
				break;
			case 5:
				std::ofstream(path, std::ios::app) << line;
				break;
			case 6:
				fs::remove(pick(2) != 0 ? path : scratch.path("a/b"), error);
				break;
			default:
				std::ofstream(path + ".other") << line << line;
				fs::rename(path + ".other", path, error);
			}
			if (pick(6) == 0)
				told += watcher.take().empty() ? 0 : 1;
		}
		(void) watcher.take();
		if (const auto now = held(db)) {
			ASSERT_EQ(watcher.objects(), *now) << "round " << round;
			compared++;
		}
		if (watcher.is_readable()) // the kernel may tell of a watch's own end late
			(void) watcher.take();
		ASSERT_FALSE(watcher.is_readable()) << "round " << round;
	}
	EXPECT_GT(told, 60);
	EXPECT_GT(compared, 100);
	// More events than the kernel keeps, the last of which is lost.
	fs::remove_all(scratch.path("a"));
	fs::create_directories(scratch.path("a/b"));
	(void) watcher.take();
	for (int i = 0; i < 9000; i++)
		fs::remove(scratch.write(i % 2 != 0 ? "a/b/x" : "a/b/y", ""));
	put("n=last;\tx=int32,1;\n");
	EXPECT_EQ(watcher.take().back(), 'S');
	EXPECT_EQ(watcher.objects(), held(db));
	EXPECT_EQ(watcher.objects().size(), 1U);
	watching.reset();
	ostrel_db_close(db);
}
INSTANTIATE_TEST_SUITE_P(OnFlatAndRawFiles, LiveWatchStorm, testing::Bool());

TEST_F(LiveWatch, SeesBatchesWholeAndNeverGoesBack)
{
	TestDb db(path);
	Watcher watcher(db);
	std::atomic<bool> ended = false;
	std::thread writer([&] {
		ostrelx_batch_t batch;
		for (int i = 100; i < 400; i++) {
			EXPECT_EQ(ostrelx_batch_create(&batch), OSTREL_SUCCESS);
			for (const char *id : {"n=a", "n=b"})
				(void) ostrelx_batch_write(
				    batch, ids(id).get(), 0, props("x=int32," + std::to_string(i)).get());
			EXPECT_EQ(ostrelx_commit(db, batch, nullptr), OSTREL_SUCCESS);
			ostrelx_batch_free(batch);
		}
		ended = true;
	});
	std::string before;
	int states = 0;
	for (bool last = false; !last;) {
		last = ended; // what was acknowledged before the call is in what it gives
		if (watcher.take().empty())
			continue;
		states++;
		std::string values[2];
		for (int i = 0; const auto &[id, content] : watcher.objects())
			values[i++ % 2] = content.substr(content.find(' '), content.find("v:") - content.find(' '));
		EXPECT_EQ(values[0], values[1]);
		EXPECT_LE(before, values[0]);
		before = values[0];
	}
	writer.join();
	EXPECT_GT(states, 10);
	EXPECT_NE(before.find("399"), std::string::npos) << before;
}

TEST_F(LiveWatch, IsLostForAsLongAsItCantReadOrBeTold)
{
	TestDb db(path);
	put("n=a;\tx=int32,1;\n");
	inotify_error = ENOSPC;
	Watcher blind(db);
	EXPECT_EQ(blind.take(), "LRPS"); // it reads without being told
	EXPECT_FALSE(blind.is_readable());
	put("n=a;\tx=int32,2;\n");
	EXPECT_TRUE(blind.is_readable(10000));
	EXPECT_EQ(blind.take(), "PS");
	inotify_error = 0;
	EXPECT_TRUE(blind.is_readable(10000));
	EXPECT_EQ(blind.take(), "S"); // it is told again
	fs::rename(path, path + ".away");
	fs::create_directory(path); // no file that could be read
	EXPECT_EQ(blind.take(), "L");
	EXPECT_FALSE(blind.is_readable());
	EXPECT_TRUE(blind.is_readable(10000)); // it tries again
	EXPECT_EQ(blind.take(), "");
	fs::remove(path);
	fs::rename(path + ".away", path);
	EXPECT_EQ(blind.take(), "S"); // and holds what it held
	EXPECT_EQ(blind.objects(), held(db));
}

TEST_F(LiveWatch, LosesNothingWhenMemoryRunsOut)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	TestDb db(path);
	struct Subject {
		Watcher watcher;
		std::string kinds;
	};
	int failures = 0;
	sweep_allocations(
	    [&] {
		    put("n=a;\tx=int32,1;\nn=b;\tx=int32,1;\n");
		    Subject subject = {Watcher(db), ""};
		    EXPECT_EQ(subject.watcher.take(), "RPPS");
		    put("n=a;\tx=int32,2;\nn=c;\tx=int32,1;\n");
		    return subject;
	    },
	    [&](Subject &subject) {
		    subject.kinds = subject.watcher.take();
		    const ostrelx_error_t result = subject.watcher.result();
		    if (result == OSTREL_NO_MEMORY)
			    subject.kinds = subject.watcher.take();
		    return result;
	    },
	    [&](Subject &subject, ostrelx_error_t result, bool) {
		    failures += result == OSTREL_NO_MEMORY ? 1 : 0;
		    EXPECT_EQ(subject.watcher.result(), OSTRELX_NOTHING);
		    EXPECT_EQ(subject.kinds.back(), 'S');
		    EXPECT_EQ(subject.watcher.objects(), held(db));
		    subject.kinds = {};
	    });
	EXPECT_GT(failures, 10);
}

TEST_F(LiveWatch, TakesAHundredBytesAnObjectBesideItsIdentifiers)
{
	SKIP_WITHOUT_ALLOC_FAULTS();
	constexpr int count = 100000;
	std::string text;
	for (int i = 100000; i < 100000 + count; i++)
		text += "name=" + std::to_string(i) + ";\tmtu=uint32,1500;up=boolean,true;\n";
	put(text);
	TestDb db(path);
	const long before = heap_use().bytes;
	ostrelx_watch_t watch;
	ASSERT_EQ(ostrelx_watch_open(db, nullptr, 0, nullptr, &watch), OSTREL_SUCCESS);
	ostrelx_event_t event;
	int puts = 0;
	while (ostrelx_watch_next(watch, &event) == OSTREL_SUCCESS)
		puts += event.kind == OSTRELX_EVENT_PUT ? 1 : 0;
	EXPECT_EQ(puts, count);
	const long each = (heap_use().bytes - before) / count - static_cast<long>(strlen("name100000"));
	EXPECT_LE(each, 100);
	EXPECT_GT(each, 32);
	RecordProperty("bytes_an_object", static_cast<int>(each));
	ostrelx_watch_close(watch);
}

TEST_F(LiveWatch, AForkedChildTakesNothingFromItsParent)
{
	TestDb db(path);
	ostrelx_watch_t watch;
	ASSERT_EQ(ostrelx_watch_open(db, nullptr, 0, nullptr, &watch), OSTREL_SUCCESS);
	ostrelx_event_t event;
	auto take = [&] {
		std::string kinds;
		while (ostrelx_watch_next(watch, &event) == OSTREL_SUCCESS)
			kinds += " RP-SCL"[event.kind];
		return kinds;
	};
	EXPECT_EQ(take(), "RS");
	put("n=a;\tx=int32,1;\n");
	EXPECT_EQ(in_child([&] {
		const ostrelx_error_t result = ostrelx_watch_next(watch, &event);
		ostrelx_watch_close(watch);
		return result;
	}),
	    OSTREL_INVALID_ARG);
	EXPECT_EQ(take(), "PS");
	put("");
	EXPECT_EQ(take(), "-S");
	ostrelx_watch_close(watch);
}

TEST_F(LiveWatch, WatchesAFileInAnotherEnclave)
{
	SKIP_WITHOUT_ENCLAVES();
	const TestEnclave enclave(fullest_enclave());
	enclave.write("/db", "n=a;\tx=int32,1;\n");
	TestDb db("/db", 0, enclave.id());
	Watcher watcher(db);
	EXPECT_EQ(watcher.take(), "RPS");
	EXPECT_FALSE(watcher.is_readable());
	enclave.write("/db", "n=a;\tx=int32,2;\n");
	EXPECT_TRUE(watcher.is_readable());
	EXPECT_EQ(watcher.take(), "PS");
	ASSERT_EQ(ostrel_db_write(db, ids("n=b").get(), 0, props("x=int32,1").get()), OSTREL_SUCCESS);
	EXPECT_EQ(watcher.take(), "PS");
	EXPECT_EQ(watcher.objects(), held(db));
}

} // namespace

// The library's own calls come here.
extern "C" int timerfd_settime(int fd, int flags, const itimerspec *when, itimerspec *before) noexcept
{
	itimerspec soon = *when; // 5 s are 50 ms
	soon.it_value = {0, when->it_value.tv_sec * 10'000'000};
	return static_cast<int>(syscall(SYS_timerfd_settime, fd, flags, &soon, before));
}
extern "C" int inotify_add_watch(int fd, const char *path, uint32_t mask) noexcept
{
	if (inotify_error == 0)
		return static_cast<int>(syscall(SYS_inotify_add_watch, fd, path, mask));
	errno = inotify_error;
	return -1;
}
