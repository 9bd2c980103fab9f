// Watches: at rest, what their events built is what the store holds, whatever came between.
#include <filesystem>
#include <map>
#include <optional>
#include <poll.h>
#include <random>

#include <gtest/gtest.h>

#include "libostrelx.h"
#include "line_lists.h"
#include "scratch.h"

namespace fs = std::filesystem;

namespace {

// Applies the events of a watch in their order.
class Watcher {
public:
	explicit Watcher(ostrel_db_t db, const char *token = nullptr, uint64_t flags = 0)
	{
		EXPECT_EQ(ostrelx_watch_open(db, nullptr, flags, token, &watch_), OSTREL_SUCCESS);
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
			apply(event);
		}
		return kinds;
	}
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
			objects_[text_of(event.idl)] = text_of(event.props) + event.version;
		else if (event.kind == OSTRELX_EVENT_REMOVE)
			EXPECT_EQ(objects_.erase(text_of(event.idl)), 1U);
		else if (event.kind == OSTRELX_EVENT_SYNCED)
			token_ = event.token;
	}

	ostrelx_watch_t watch_ = nullptr;
	std::map<std::string, std::string> objects_;
	std::string token_;
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

TEST_F(LiveWatch, AtRestHoldsWhatIsThereWhateverCameBetween)
{
	std::mt19937 random(20261125);
	auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
	TestDb db(path);
	Watcher watcher(db);
	int told = 0, compared = 0;
	for (int round = 0; round < 300; round++) {
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
	EXPECT_GT(told, 100);
	EXPECT_GT(compared, 150);
}

} // namespace
