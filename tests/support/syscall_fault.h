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

#include <cstddef>

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
		Rename, // rename, renameat, renameat2
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

	// Whether the n-th call was made, here or in a forked child.
	bool fired() const;
	// How many calls were seen so far, the failed one included.
	int calls() const;

	struct Shared;
	Call call_;
	int nth_;
	Action action_;
	int value_;
	Shared *shared_;
	FailNth *outer_; // faults may be nested: each counts by itself
};

#endif
