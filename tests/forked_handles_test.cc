// Handles in forked children of processes whose threads are in the middle of using them. Three kinds of fork: with the
// handlers of pthread_atfork(), without them, and into a new namespace of process ids.
#include <csignal>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cairn_db.h"
#include "served_db.h"

namespace {

// A fork without the handlers of pthread_atfork(), perhaps into a new namespace of process ids.
pid_t bare_fork(unsigned long flags)
{
	return static_cast<pid_t>(syscall(SYS_clone, flags | SIGCHLD, 0, 0, 0, 0));
}

// Whether a child succeeds; one that hangs is killed. An alarm wouldn't reach the first process of a namespace.
bool succeeds(pid_t child)
{
	int status = -1;
	if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; })) {
		(void) kill(child, SIGKILL);
		(void) waitpid(child, &status, 0);
	}
	return status == 0;
}

bool reads(ostrel_db_t db, const char *idl)
{
	AttrList ids = idl_of(idl), props;
	return ostrel_db_read(db, ids.get(), 0, props.out()) == OSTREL_SUCCESS;
}

// With all locks of the handle held, as threads hold them that a child doesn't have.
bool reads_in_children(ostrel_db_t db, const char *idl) NO_THREAD_SAFETY_ANALYSIS
{
	bool good = reads(db, idl);
	ostrel_db_wrlock(db);
	ostrel_db_lock_priv(db);
	for (int kind = 0; kind < (geteuid() == 0 ? 3 : 2); kind++) {
		const pid_t child = kind == 0 ? fork() : bare_fork(kind == 1 ? 0 : CLONE_NEWPID);
		if (child == 0)
			_exit(reads(db, idl) ? 0 : 1);
		good = good && succeeds(child);
	}
	ostrel_db_unlock_priv(db);
	ostrel_db_unlock(db);
	return good;
}

// In a process that is the first of its namespace, so that the child of the last kind has its number.
void expect_reads(ostrel_db_t db, const char *idl)
{
#ifdef __SANITIZE_THREAD__
	GTEST_SKIP() << "ThreadSanitizer takes a lock that a child initializes again for the one that was held";
#endif
	const pid_t first = geteuid() == 0 ? bare_fork(CLONE_NEWPID) : fork();
	if (first == 0)
		_exit(reads_in_children(db, idl) ? 0 : 1);
	EXPECT_TRUE(succeeds(first)) << idl;
}

TEST(ForkedHandles, AFile)
{
	Scratch scratch;
	scratch.write("db", "id=a;\tp=string,1;\n");
	expect_reads(open_database(scratch.path("db")).get(), "id=a");
}

TEST(ForkedHandles, AHatch)
{
	SKIP_UNLESS_ROOT();
	ServedFile file;
	file.write("id=a;\tp=string,1;\n");
	Process server = serve_file(file);
	expect_reads(open_database(file.hatch, ostrel_hatches_db_cmds).get(), "id=a");
}

TEST(ForkedHandles, ARepository)
{
	CairnDaemon here;
	ASSERT_TRUE(here.ready);
	CairnDb db = open_cairn(test_service);
	ASSERT_TRUE(db);
	ASSERT_EQ(put(db, "a:t", "p=1"), OSTREL_SUCCESS);
	expect_reads(db.get(), "object-pgname=a");
}

} // namespace
