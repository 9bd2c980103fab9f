// A bare SQLite file of the repository daemon's journal mode, with one row: what no commit can do without.
#ifndef BENCH_BARE_FILE_H
#define BENCH_BARE_FILE_H

#include <cstdlib>
#include <filesystem>
#include <sqlite3.h>
#include <string>

#include "processes.h"

class BareFile {
public:
	explicit BareFile(size_t row_size) : blob_(row_size, 'x')
	{
		processes::must(mkdtemp(directory_.data()) != nullptr);
		done(sqlite3_open((directory_ + "/db").c_str(), &db_));
		run("pragma journal_mode=truncate; pragma synchronous=extra; create table t(id integer primary key, b "
		    "blob);"
		    "insert into t values(1, zeroblob(300))");
		done(sqlite3_prepare_v2(db_, "update t set b = ?1 where id = 1", -1, &update_, nullptr));
	}
	BareFile(const BareFile &) = delete;
	BareFile &operator=(const BareFile &) = delete;
	~BareFile()
	{
		(void) sqlite3_finalize(update_);
		(void) sqlite3_close(db_);
		std::filesystem::remove_all(directory_);
	}
	void commit()
	{
		blob_[0] = static_cast<char>(blob_[0] + 1);
		run("begin immediate");
		done(sqlite3_bind_blob(update_, 1, blob_.data(), static_cast<int>(blob_.size()), SQLITE_STATIC));
		done(sqlite3_step(update_), SQLITE_DONE);
		done(sqlite3_reset(update_));
		run("commit");
	}

private:
	static void done(int code, int expected = SQLITE_OK) { processes::must(code == expected); }
	void run(const char *text) { done(sqlite3_exec(db_, text, nullptr, nullptr, nullptr)); }

	std::string directory_ = "/tmp/ostrel-bench-XXXXXX", blob_;
	sqlite3 *db_ = nullptr;
	sqlite3_stmt *update_ = nullptr;
};

#endif
