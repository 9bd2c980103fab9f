// Makes the n-th call of a system call fail, in the calling thread and in the children that it forks.
//
//	for (int nth = 1;; nth++) {
//		FailNth fault(FailNth::Write, nth, ENOSPC);
//		... the operation ...
//		if (!fault.fired())
//			break;          // the operation ran through without meeting the fault
//	}
//
// It works by defining the calls in the test program, so it reaches the library's objects, linked statically or
// as a shared library, and nothing that libc calls inside itself (fopen(), fwrite() and the like). Other threads
// pass by untouched. Counts lie in shared memory: what a forked child meets counts, and is seen by its parent.
#ifndef TESTS_SYSCALL_FAULT_H
#define TESTS_SYSCALL_FAULT_H

#include <atomic>
#include <csignal>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "scratch.h"

class FailNth {
public:
	enum Call {
		Open,  // open, openat, openat2, and their forms for large files
		Read,  // read, pread
		Write, // write, pwrite, writev
		Fsync,
		Fdatasync,
		Fchmod,
		Fchown,
		Ftruncate,
		Stat,   // stat, lstat, fstat, fstatat
		Rename, // rename, renameat, renameat2 by syscall()
		Unlink, // unlink, unlinkat
		Fork,   // fork, and clone through syscall()
		Waitid,
		Close, // the descriptor is closed all the same, as the kernel does it
		Socketpair,
		Sendmsg,
		Recvmsg,
		Chroot,
		Setns,
		Memfd, // memfd_create
	};
	enum Action {
		Fail,  // -1, with the error number `value`
		Short, // a write or read of at most `value` bytes
		Kill,  // SIGKILL for the calling process, before the call
	};

	FailNth(Call call, int nth, int error) : FailNth(call, nth, Fail, error) {}
	FailNth(Call call, int nth, Action action, int value = 0);
	~FailNth();
	FailNth(const FailNth &) = delete;
	FailNth &operator=(const FailNth &) = delete;

	// Ends the trouble before the assertions, which make calls too.
	void stop() { nth_ = 0; }
	// Whether the n-th call was made, here or in a forked child.
	bool fired() const { return shared_->fired; }
	// How many calls were seen so far, the failed one included.
	int calls() const { return shared_->calls; }

	struct Shared {
		std::atomic<int> calls;
		std::atomic<bool> fired;
	};
	Call call_;
	int nth_;
	Action action_;
	int value_;
	Shared *shared_;
	FailNth *outer_; // faults may be nested: each counts by itself
};

// What an operation meets in a sweep: a call that fails with `error`, for which it gives `result`; one that moves `most` bytes
// at most, if that is given; or a kill before the call.
struct Fault {
	FailNth::Call call;
	int error; // 0: a kill
	int result = 0;
	int most = 0;
};

// One round of a sweep: which of the fault's calls was hit, if it was, and what the operation gave.
struct Round {
	const Fault *fault;
	int nth;
	bool hit;
	int result;
	bool is(FailNth::Call call) const { return hit && fault->call == call; }
};

// Runs an operation with each fault of a table at its first call, its second, and so on, until it runs through.
//   prepare()             makes what the operation works on, before each round
//   operation(subject)    gives a result; only here calls fail. Where they kill, it runs in a process of its own
//   check(subject, round) looks at what is there now
// No round may leave a descriptor. Gives the number of hits, so that a sweep can't pass by meeting nothing.
template <typename Prepare, typename Operation, typename Check>
int sweep_faults(const std::vector<Fault> &faults, Prepare prepare, Operation operation, Check check)
{
	int hits = 0;
	for (const Fault &fault : faults) {
		for (int nth = 1; nth < 1000; nth++) {
			SCOPED_TRACE("call " + std::to_string(fault.call) + ", number " + std::to_string(nth) +
				     ", error " + std::to_string(fault.error) + ", at most " +
				     std::to_string(fault.most));
			auto subject = prepare();
			const int descriptors = open_descriptors();
			Round round = {&fault, nth, false, 0};
			if (fault.error == 0 && fault.most == 0) {
				const int status = in_child([&] {
					FailNth fatal(fault.call, nth, FailNth::Kill);
					return operation(subject);
				});
				round.hit = status == 1000 + SIGKILL;
				round.result = round.hit ? 0 : status;
			} else {
				const bool cut = fault.most != 0;
				FailNth armed(fault.call, nth, cut ? FailNth::Short : FailNth::Fail,
				    cut ? fault.most : fault.error);
				round.result = operation(subject);
				armed.stop();
				round.hit = armed.fired();
			}
			EXPECT_EQ(open_descriptors(), descriptors);
			check(subject, round);
			hits += round.hit ? 1 : 0;
			if (!round.hit || testing::Test::HasFailure())
				break;
		}
	}
	return hits;
}

#endif
