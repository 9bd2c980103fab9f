// Updates of flat files: what the file holds afterwards, and what an update refuses to touch.
#include "libostrel_files.h"
#include "libostrel_impl.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "child.h"
#include "line_lists.h"
#include "scratch.h"

class FilesUpdate : public testing::Test {
protected:
	Scratch scratch;
	std::string path = scratch.path("db");

	ostrel_error_t write(const std::string &idlist, const std::string &properties)
	{
		return ostrel_db_write(TestDb(path), ids(idlist).get(), 0, props(properties).get());
	}
	ostrel_error_t remove(const std::string &idlist)
	{
		return ostrel_db_remove(TestDb(path), ids(idlist).get(), 0);
	}
	void holds(const std::string &text) { scratch.write("db", text); }
	std::string text() { return file_text(path); }
	void makes(ostrel_error_t result, const std::string &after)
	{
		EXPECT_EQ(result, OSTREL_SUCCESS);
		EXPECT_EQ(text(), after);
	}
	static struct stat status(const std::string &of)
	{
		struct stat found = {};
		EXPECT_EQ(stat(of.c_str(), &found), 0);
		return found;
	}
};

TEST_F(FilesUpdate, RemovingTheLastObjectLeavesAnEmptyFile)
{
	holds("a=1;\t\na=1;\tx=int32,1;\n");
	makes(remove("a=1"), "");
	EXPECT_TRUE(scratch.has("db"));
	EXPECT_EQ(remove("a=1"), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_db_remove(TestDb(path), nullptr, 0), OSTREL_SUCCESS);
	EXPECT_FALSE(scratch.has("db"));
	EXPECT_EQ(ostrel_db_remove(TestDb(path), nullptr, 0), OSTREL_NOT_FOUND);
	holds("");
	EXPECT_EQ(ostrel_destroy_db_file(path.c_str(), 10000), OSTREL_SUCCESS) << "no enclave's number: it is here";
}

TEST_F(FilesUpdate, TheListsFileNameSendsTheUpdateThere)
{
	holds("a=1;\t\n");
	std::string other = scratch.path("other");
	TestDb db(path);
	AttrList named;
	ASSERT_EQ(ostrel_idlist_init(named.out(), other.c_str()), OSTREL_SUCCESS);
	ASSERT_EQ(ostrel_idlist_add(named.get(), "a", "1"), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_write(db, named.get(), 0, props("x=int32,1").get()), OSTREL_SUCCESS);
	EXPECT_FALSE(scratch.has("other.new"));
	EXPECT_EQ(ostrel_db_rename(db, named.get(), 0, ids("b=2").get()), OSTREL_SUCCESS);
	EXPECT_EQ(file_text(other), "b=2;\tx=int32,1;\n");
	EXPECT_EQ(text(), "a=1;\t\n");
}

TEST_F(FilesUpdate, WhatCannotBeWrittenChangesNothing)
{
	std::string old = "# kept\na=1;\tx=int32,1;\n";
	std::string long_id = "a=" + std::string(253, 'v');
	holds(old);
	AttrList scalar = props("");
	ASSERT_EQ(attrlist_add_uint64(scalar.get(), "big", 1), 0);
	AttrList split = ids("");
	ASSERT_EQ(ostrel_idlist_add(split.get(), "a", "1;b=2"), OSTREL_SUCCESS);
	TestDb db(path);
	for (bool stale : {false, true}) {
		EXPECT_EQ(ostrel_db_write(db, ids("a=1").get(), 0, scalar.get()), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_write(db, ids("a=2").get(), 0, scalar.get()), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_rename(db, ids("a=1").get(), 0, split.get()), OSTREL_INVALID_ARG);
		EXPECT_EQ(ostrel_db_rename(db, ids("a=1").get(), 0, ids(long_id).get()), OSTREL_INVALID_ARG);
		EXPECT_EQ(text(), old);
		EXPECT_EQ(scratch.has("db.new"), stale);
		EXPECT_EQ(file_text(scratch.path("db.new")), stale ? "untouched" : "");
		scratch.write("db.new", "untouched");
	}
	// A line that was read but can't be written stops every update of its file.
	holds(long_id + ";\t\nb=1;\t\n");
	EXPECT_EQ(write("b=1", "x=int32,1"), OSTREL_INVALID_ARG);
	EXPECT_EQ(text(), long_id + ";\t\nb=1;\t\n");
	makes(remove(long_id), "b=1;\t\n");
}

TEST_F(FilesUpdate, MissingArgumentsAreRefusedBeforeAnythingIsOpened)
{
	TestDb db(path);
	AttrList list = ids("a=1");
	EXPECT_EQ(ostrel_write_object_to_file(nullptr, list.get(), 0, list.get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_write_object_to_file(db, nullptr, 0, list.get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_write_object_to_file(db, list.get(), 0, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_rename_object_in_file(db, list.get(), 0, nullptr), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_rename_object_in_file(db, nullptr, 0, list.get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_remove_object_from_file(nullptr, nullptr, 0), OSTREL_INVALID_ARG);
	EXPECT_FALSE(scratch.has("db"));
}

TEST_F(FilesUpdate, APathWithoutRoomForTheTemporaryNameIsRefused)
{
	path = scratch.directory() + std::string(1015 - scratch.directory().size(), '/') + "file";
	makes(write("a=1", ""), "a=1;\t\n");
	path += "x";
	std::ofstream(path) << "a=1;\t\n";
	EXPECT_EQ(write("a=1", "x=int32,1"), OSTREL_INVALID_ARG);
	EXPECT_EQ(text(), "a=1;\t\n");
}

// ---- What stands at the database's place, or at the temporary file's ----

TEST_F(FilesUpdate, OnlyARegularFileIsReplaced)
{
	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
	EXPECT_EQ(write("a=1", ""), OSTREL_INVALID_ARG) << "and doesn't wait for a writer";
	EXPECT_EQ(remove("a=1"), OSTREL_INVALID_ARG);
	path = scratch.directory();
	EXPECT_EQ(write("a=1", ""), OSTREL_FAILURE);
	path = scratch.path("no/such/db");
	EXPECT_EQ(write("a=1", ""), OSTREL_NOT_FOUND);
}

TEST_F(FilesUpdate, ALinkIsReplacedByTheFile)
{
	std::string target = scratch.write("target", "a=1;\tx=int32,1;\n");
	ASSERT_EQ(symlink("target", path.c_str()), 0);
	makes(write("b=2", ""), "a=1;\tx=int32,1;\nb=2;\t\n");
	EXPECT_EQ(file_text(target), "a=1;\tx=int32,1;\n");
	path = scratch.path("dangling");
	ASSERT_EQ(symlink("nowhere", path.c_str()), 0);
	makes(write("b=2", ""), "b=2;\t\n");
	EXPECT_FALSE(scratch.has("nowhere"));
}

TEST_F(FilesUpdate, AStaleTemporaryFileIsUsedAgainAndTheNewFileHasItsOwnMode)
{
	holds("a=1;\t\n");
	ASSERT_EQ(chmod(path.c_str(), 0600), 0);
	mode_t old = umask(077);
	makes(write("a=1", ""), "a=1;\t\n");
	EXPECT_EQ(status(path).st_mode & 07777, 0644U);
	std::string temporary = scratch.write("db.new", std::string(100000, '?'));
	ino_t stale = status(temporary).st_ino;
	makes(write("a=1", ""), "a=1;\t\n");
	umask(old);
	EXPECT_EQ(status(path).st_ino, stale);
	EXPECT_EQ(status(path).st_mode & 07777, 0644U);
}

TEST_F(FilesUpdate, WhatIsNoFileOfItsOwnInTheTemporaryPlaceIsRefusedAndStays)
{
	struct Obstacle {
		int (*make)(const char *precious, const char *temporary);
		ostrel_error_t result;
	};
	static constexpr Obstacle obstacles[] = {
	    {symlink, OSTREL_INVALID_ARG},
	    {link, OSTREL_INVALID_ARG},
	    {[](auto, auto to) { return mkfifo(to, 0600); }, OSTREL_INVALID_ARG},
	    {[](auto, auto to) { return mkdir(to, 0700); }, OSTREL_FAILURE},
	};
	holds("a=1;\t\n");
	std::string temporary = scratch.path("db.new");
	std::string precious = scratch.write("precious", "precious");
	for (const Obstacle &obstacle : obstacles) {
		ASSERT_EQ(obstacle.make(precious.c_str(), temporary.c_str()), 0);
		EXPECT_EQ(write("a=1", "x=int32,1"), obstacle.result) << &obstacle - obstacles;
		EXPECT_EQ(text(), "a=1;\t\n");
		EXPECT_EQ(file_text(precious), "precious");
		EXPECT_EQ(::remove(temporary.c_str()), 0);
	}
	EXPECT_EQ(write("a=1", "x=int32,1"), OSTREL_SUCCESS);
}

TEST_F(FilesUpdate, AStrangersTemporaryFileIsUsedOnlyWhereNobodyElseCanPutOne)
{
	SKIP_UNLESS_ROOT();
	struct Place {
		mode_t mode;
		uid_t owner;
		ostrel_error_t result;
	};
	static constexpr Place places[] = {{0755, 0, OSTREL_SUCCESS}, {0755, 65534, OSTREL_EPERM},
	    {0775, 0, OSTREL_EPERM}, {0757, 0, OSTREL_EPERM}, {01777, 0, OSTREL_EPERM}};
	for (const Place &place : places) {
		holds("a=1;\t\n");
		std::string temporary = scratch.write("db.new", "theirs");
		ASSERT_EQ(chown(temporary.c_str(), 65534, 65534), 0);
		ASSERT_EQ(chown(scratch.directory().c_str(), place.owner, 0), 0);
		ASSERT_EQ(chmod(scratch.directory().c_str(), place.mode), 0);
		EXPECT_EQ(write("a=1", "x=int32,1"), place.result) << std::oct << place.mode;
		bool done = place.result == OSTREL_SUCCESS;
		EXPECT_EQ(text(), done ? "a=1;\tx=int32,1;\n" : "a=1;\t\n");
		EXPECT_EQ(status(path).st_uid, done ? 65534U : 0U);
		EXPECT_EQ(file_text(temporary), done ? "" : "theirs");
		(void) unlink(path.c_str());
	}
}
