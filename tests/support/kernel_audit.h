// The kernel's audit log as a reader has it: switched on for a test, and the records of trusted programs read back.
#ifndef TESTS_KERNEL_AUDIT_H
#define TESTS_KERNEL_AUDIT_H

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/guards.h"
#include "hatch_peer.h"

// One record, taken apart. Whatever isn't a row of fields, each once, ends the reader and so fails the test.
struct AuditRecord {
	std::string raw;
	std::string
	    names; // of the fields, in order, with blanks between them; first the kernel's of the sender, pid and uid
	std::map<std::string, std::string> fields;

	const std::string &operator[](const char *name) const;
};

// While it lives, audit is on, and no other test of this machine reads or switches it. Afterwards it is as it was, also if
// the test is killed.
class KernelAudit {
public:
	// Why there are no records to be read here, or NULL.
	static const char *why_not();

	KernelAudit();
	~KernelAudit();
	KernelAudit(const KernelAudit &) = delete;
	KernelAudit &operator=(const KernelAudit &) = delete;

	// The records of updates that this process, or the one given, sent since the last look, in order. All of them: the
	// kernel delivers in order, and a mark of the test's own ends them.
	std::vector<AuditRecord> records(pid_t sender = getpid());

private:
	Fd socket_;
	Process reader_;
	Stream output_;
};

#define SKIP_WITHOUT_KERNEL_AUDIT()                                                                                    \
	if (const char *why = KernelAudit::why_not())                                                                  \
	GTEST_SKIP() << why

#endif
