// Updates of flat files: what the file holds afterwards, and what an update refuses to touch.
#include "libostrel_files.h"
#include "libostrel_impl.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "line_lists.h"
#include "scratch.h"

class FilesUpdate : public testing::Test {
protected:
	Scratch scratch;
	std::string path = scratch.path("db");

	ostrel_error_t write(const std::string &idlist, const std::string &properties, uint64_t flags = 0)
	{
		TestDb db(path, flags);
		return ostrel_db_write(db, ids(idlist).get(), 0, props(properties).get());
	}
	ostrel_error_t rename(const std::string &idlist, const std::string &newidlist)
	{
		TestDb db(path);
		return ostrel_db_rename(db, ids(idlist).get(), 0, ids(newidlist).get());
	}
	ostrel_error_t remove(const std::string &idlist)
	{
		TestDb db(path);
		return ostrel_db_remove(db, ids(idlist).get(), 0);
	}
	void holds(const std::string &text) { scratch.write("db", text); }
	std::string text() { return file_text(path); }
};

TEST_F(FilesUpdate, AWriteMakesTheFileAndLeavesNoTemporaryOne)
{
	EXPECT_EQ(write("a=1;b=2", "x=int32,1;y=string,s"), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;b=2;\tx=int32,1;y=string,s;\n");
	EXPECT_FALSE(scratch.has("db.new"));
	EXPECT_EQ(write("c=3", ""), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;b=2;\tx=int32,1;y=string,s;\nc=3;\t\n");
}

TEST_F(FilesUpdate, AWriteReplacesThePropertiesWholeAndKeepsPlaceAndSpelling)
{
	holds("a=1;\tp=int32,1;\na=x;\tx=int32,1;y=int32,2;\na=2;\tp=int32,2;\n");
	EXPECT_EQ(write("a=X", "z=int32,3"), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;\tp=int32,1;\na=x;\tz=int32,3;\na=2;\tp=int32,2;\n");
	EXPECT_EQ(write("a=X", "z=int32,4", OSTREL_DB_CASE_SENSITIVE), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;\tp=int32,1;\na=x;\tz=int32,3;\na=2;\tp=int32,2;\na=X;\tz=int32,4;\n");
	EXPECT_EQ(write("a=X", "w=int32,5"), OSTREL_SUCCESS) << "both change";
	EXPECT_EQ(text(), "a=1;\tp=int32,1;\na=x;\tw=int32,5;\na=2;\tp=int32,2;\na=X;\tw=int32,5;\n");
}

TEST_F(FilesUpdate, ASubsetOfTheIdentifiersIsAnotherObject)
{
	holds("a=1;b=2;\t\nc=;\t\n");
	EXPECT_EQ(rename("a=1", "z=1"), OSTREL_NOT_FOUND);
	EXPECT_EQ(remove("a="), OSTREL_NOT_FOUND);
	EXPECT_EQ(write("a=1", ""), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;b=2;\t\nc=;\t\na=1;\t\n");
	EXPECT_EQ(rename("b=2;a=1", "n=1;m=2"), OSTREL_SUCCESS);
	EXPECT_EQ(remove("c="), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "n=1;m=2;\t\na=1;\t\n");
}

TEST_F(FilesUpdate, ARenameKeepsPlaceAndPropertiesOfEachMatch)
{
	holds("a=1;\tp=int32,1;\nb=2;\t\nA=1;\t\na=1;\tp=string,s;\n");
	EXPECT_EQ(rename("a=1", "b=2"), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "b=2;\tp=int32,1;\nb=2;\t\nA=1;\t\nb=2;\tp=string,s;\n");
}

TEST_F(FilesUpdate, RemovingTheLastObjectLeavesAnEmptyFile)
{
	holds("a=1;\t\na=1;\tx=int32,1;\n");
	EXPECT_EQ(remove("a=1"), OSTREL_SUCCESS);
	EXPECT_TRUE(scratch.has("db"));
	EXPECT_EQ(text(), "");
	EXPECT_EQ(remove("a=1"), OSTREL_NOT_FOUND);
	TestDb db(path);
	EXPECT_EQ(ostrel_db_remove(db, nullptr, 0), OSTREL_SUCCESS);
	EXPECT_FALSE(scratch.has("db"));
	EXPECT_EQ(ostrel_db_remove(db, nullptr, 0), OSTREL_NOT_FOUND);
}

TEST_F(FilesUpdate, TheNewFileHoldsObjectsInTheWritersFormAndNothingElse)
{
	std::string odd =
	    "# comment\n\n  a=1\na=2;\tx=INT32,007,abc;y=string,,;\nbroken;\tx\na=3;\tx=uint32,4294967295";
	holds(odd);
	EXPECT_EQ(remove("a=9"), OSTREL_NOT_FOUND);
	EXPECT_EQ(text(), odd);
	EXPECT_EQ(write("a=1", "n=int32,1"), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;\tn=int32,1;\na=2;\tx=int32,7,0;y=string,;\na=3;\tx=uint32,-1;\n");
	holds("# a=1;\n");
	EXPECT_EQ(remove("a=1"), OSTREL_NOT_FOUND);
	EXPECT_EQ(write("a=1", ""), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;\t\n");
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
	EXPECT_EQ(ostrel_db_rename(db, named.get(), 0, named.get()), OSTREL_SUCCESS);
	EXPECT_EQ(file_text(other), "a=1;\tx=int32,1;\n");
	EXPECT_EQ(text(), "a=1;\t\n");
}

TEST_F(FilesUpdate, WhatCannotBeWrittenChangesNothing)
{
	std::string old = "# kept\na=1;\tx=int32,1;\n";
	holds(old);
	AttrList scalar = props("");
	ASSERT_EQ(attrlist_add_uint64(scalar.get(), "big", 1), 0);
	TestDb db(path);
	EXPECT_EQ(ostrel_db_write(db, ids("a=1").get(), 0, scalar.get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(ostrel_db_write(db, ids("a=2").get(), 0, scalar.get()), OSTREL_INVALID_ARG);
	AttrList elsewhere = ids("a=2");
	ASSERT_EQ(ostrel_idlist_add_enclaveid(elsewhere.get(), 0), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_db_write(db, elsewhere.get(), 0, props("").get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(rename("a=1", "a=" + std::string(253, 'v')), OSTREL_INVALID_ARG);
	EXPECT_EQ(write("", "x=int32,1"), OSTREL_INVALID_ARG);
	AttrList split = ids("");
	ASSERT_EQ(ostrel_idlist_add(split.get(), "a", "1;b=2"), OSTREL_SUCCESS);
	EXPECT_FALSE(scratch.has("db.new"));
	scratch.write("db.new", "untouched");
	EXPECT_EQ(ostrel_db_rename(db, ids("a=1").get(), 0, split.get()), OSTREL_INVALID_ARG);
	EXPECT_EQ(text(), old);
	EXPECT_EQ(file_text(scratch.path("db.new")), "untouched");
	// A line that was read but can't be written stops every update of its file.
	std::string long_id = "a=" + std::string(300, 'v') + ";\t\nb=1;\t\n";
	holds(long_id);
	EXPECT_EQ(write("b=1", "x=int32,1"), OSTREL_INVALID_ARG);
	EXPECT_EQ(text(), long_id);
	EXPECT_EQ(remove("a=" + std::string(300, 'v')), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "b=1;\t\n");
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

TEST_F(FilesUpdate, TheNewFileHasItsOwnMode)
{
	holds("a=1;\t\n");
	ASSERT_EQ(chmod(path.c_str(), 0600), 0);
	mode_t old = umask(077);
	EXPECT_EQ(write("a=1", ""), OSTREL_SUCCESS);
	umask(old);
	struct stat found;
	ASSERT_EQ(stat(path.c_str(), &found), 0);
	EXPECT_EQ(found.st_mode & 07777, 0644U);
}

TEST_F(FilesUpdate, APathWithoutRoomForTheTemporaryNameIsRefused)
{
	// A path of 1019 bytes is the longest that leaves room, also when it winds through `.`
	std::string winding = scratch.directory();
	while (winding.size() < 1015)
		winding += "/.";
	winding = winding.substr(0, 1014) + "/" + "file";
	winding.replace(1013, 1, winding[1013] == '.' ? "." : "/");
	ASSERT_EQ(winding.size(), 1019U);
	path = winding;
	EXPECT_EQ(write("a=1", ""), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;\t\n");
	path = winding + "x";
	holds("");
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
	path = scratch.path("directory");
	ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
	EXPECT_EQ(write("a=1", ""), OSTREL_FAILURE);
	path = "/dev/null";
	EXPECT_EQ(write("a=1", ""), OSTREL_INVALID_ARG);
	path = scratch.path("no/such/db");
	EXPECT_EQ(write("a=1", ""), OSTREL_NOT_FOUND);
}

TEST_F(FilesUpdate, ALinkIsReplacedByTheFile)
{
	std::string target = scratch.write("target", "a=1;\tx=int32,1;\n");
	ASSERT_EQ(symlink("target", path.c_str()), 0);
	EXPECT_EQ(write("b=2", ""), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;\tx=int32,1;\nb=2;\t\n");
	EXPECT_EQ(file_text(target), "a=1;\tx=int32,1;\n");
	path = scratch.path("dangling");
	ASSERT_EQ(symlink("nowhere", path.c_str()), 0);
	EXPECT_EQ(write("b=2", ""), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "b=2;\t\n");
	EXPECT_FALSE(scratch.has("nowhere"));
}

TEST_F(FilesUpdate, AStaleTemporaryFileIsUsedAgain)
{
	scratch.write("db.new", std::string(100000, '?'));
	ASSERT_EQ(chmod(scratch.path("db.new").c_str(), 0600), 0);
	struct stat stale;
	ASSERT_EQ(stat(scratch.path("db.new").c_str(), &stale), 0);
	EXPECT_EQ(write("a=1", ""), OSTREL_SUCCESS);
	EXPECT_EQ(text(), "a=1;\t\n");
	struct stat found;
	ASSERT_EQ(stat(path.c_str(), &found), 0);
	EXPECT_EQ(found.st_ino, stale.st_ino);
	EXPECT_EQ(found.st_mode & 07777, 0644U);
}

TEST_F(FilesUpdate, WhatIsNoFileOfItsOwnInTheTemporaryPlaceIsRefusedAndStays)
{
	holds("a=1;\t\n");
	std::string temporary = scratch.path("db.new");
	std::string precious = scratch.write("precious", "precious");
	struct Place {
		const char *what;
		int (*make)(const std::string &precious, const std::string &temporary);
		ostrel_error_t result;
	};
	static constexpr Place places[] = {
	    {"link", [](auto &from, auto &to) { return symlink(from.c_str(), to.c_str()); }, OSTREL_INVALID_ARG},
	    {"hard link", [](auto &from, auto &to) { return link(from.c_str(), to.c_str()); }, OSTREL_INVALID_ARG},
	    {"fifo", [](auto &, auto &to) { return mkfifo(to.c_str(), 0600); }, OSTREL_INVALID_ARG},
	    {"directory", [](auto &, auto &to) { return mkdir(to.c_str(), 0700); }, OSTREL_FAILURE},
	};
	for (const Place &place : places) {
		ASSERT_EQ(place.make(precious, temporary), 0) << place.what;
		EXPECT_EQ(write("a=1", "x=int32,1"), place.result) << place.what;
		EXPECT_EQ(text(), "a=1;\t\n") << place.what;
		EXPECT_EQ(file_text(precious), "precious") << place.what;
		EXPECT_TRUE(scratch.has("db.new")) << place.what;
		ASSERT_EQ(::remove(temporary.c_str()), 0);
	}
	EXPECT_EQ(write("a=1", "x=int32,1"), OSTREL_SUCCESS);
}

TEST_F(FilesUpdate, AStrangersTemporaryFileIsUsedOnlyWhereNobodyElseCanPutOne)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "needs another user to be";
	struct Place {
		mode_t mode;
		uid_t owner;
		ostrel_error_t result;
	};
	static constexpr Place places[] = {{0755, 0, OSTREL_SUCCESS}, {0755, 65534, OSTREL_EPERM},
	    {0775, 0, OSTREL_EPERM}, {0757, 0, OSTREL_EPERM}, {01777, 0, OSTREL_EPERM}};
	std::string temporary = scratch.path("db.new");
	for (const Place &place : places) {
		holds("a=1;\t\n");
		scratch.write("db.new", "theirs");
		ASSERT_EQ(chown(temporary.c_str(), 65534, 65534), 0);
		ASSERT_EQ(chown(scratch.directory().c_str(), place.owner, 0), 0);
		ASSERT_EQ(chmod(scratch.directory().c_str(), place.mode), 0);
		EXPECT_EQ(write("a=1", "x=int32,1"), place.result) << std::oct << place.mode;
		bool done = place.result == OSTREL_SUCCESS;
		EXPECT_EQ(text(), done ? "a=1;\tx=int32,1;\n" : "a=1;\t\n");
		EXPECT_EQ(done ? "theirs" : file_text(temporary), "theirs");
		struct stat found;
		ASSERT_EQ(stat(path.c_str(), &found), 0);
		EXPECT_EQ(found.st_uid, done ? 65534U : 0U);
		(void) unlink(path.c_str());
	}
}

TEST_F(FilesUpdate, DestroyingKnowsWhichEnclaveItMay)
{
	holds("");
	EXPECT_EQ(ostrel_destroy_db_file(path.c_str(), 10000), OSTREL_SUCCESS);
	EXPECT_EQ(ostrel_destroy_db_file(path.c_str(), 0), OSTREL_NOT_FOUND);
	EXPECT_EQ(ostrel_destroy_db_file(scratch.path("no/such/db").c_str(), 0), OSTREL_NOT_FOUND);
}
