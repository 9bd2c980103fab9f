// Allocations that fail when a test says so, and a count of those that are alive.
//
// The test binary defines malloc and its family, so this reaches the libraries, operator new and libc itself. Everything is
// counted for the calling thread alone. Sanitizers bring their own allocator: there available() is false, and a test
// begins with SKIP_WITHOUT_ALLOC_FAULTS().
#ifndef TESTS_ALLOC_FAULT_H
#define TESTS_ALLOC_FAULT_H

#include <cstddef>

#include <gtest/gtest.h>

// While it lives, the nth allocation of this thread from now on fails with ENOMEM. One at a time in a thread.
class AllocFault {
public:
	enum class After { Succeed, Fail };

	explicit AllocFault(int nth, After after = After::Succeed);
	~AllocFault() { stop(); }
	AllocFault(const AllocFault &) = delete;
	AllocFault &operator=(const AllocFault &) = delete;

	// Ends the trouble before the assertions, which allocate too.
	void stop();
	// Whether so many allocations were asked for, and one failed.
	bool fired() const { return fired_; }

	static bool available();

private:
	bool fired_ = false;
};

// While it lives, an AllocFault of this thread neither counts nor fails: for what isn't under test, but lies in its way.
class AllocFaultPause {
public:
	AllocFaultPause();
	~AllocFaultPause();
	AllocFaultPause(const AllocFaultPause &) = delete;
	AllocFaultPause &operator=(const AllocFaultPause &) = delete;

private:
	long until_fault_;
};

// Blocks and bytes of the heap (with malloc's own overhead) that this thread took and didn't give back.
struct HeapUse {
	long blocks;
	long bytes;
};
HeapUse heap_use();

#define SKIP_WITHOUT_ALLOC_FAULTS()                                                                                    \
	do {                                                                                                           \
		if (!AllocFault::available())                                                                          \
			GTEST_SKIP() << "a sanitizer owns the allocator of this build";                                \
	} while (0)

// Calls `operation` with its first, second, third ... allocation failing, until it runs without a hit.
//   prepare()                 makes what the operation works on, before anything fails
//   operation(subject)        gives a result; only here allocations fail
//   check(subject, result, failed)  looks at both
// What prepare() makes is given up after each round, and then nothing of the heap may be left. Gives the rounds.
template <typename Prepare, typename Operation, typename Check>
int sweep_allocations(Prepare prepare, Operation operation, Check check)
{
	for (int nth = 1; nth < 100000; nth++) {
		HeapUse before = heap_use();
		bool fired;
		{
			auto subject = prepare();
			AllocFault fault(nth);
			auto result = operation(subject);
			fault.stop();
			fired = fault.fired();
			check(subject, result, fired);
		}
		EXPECT_EQ(heap_use().blocks, before.blocks) << "leaked when allocation " << nth << " failed";
		if (!fired || testing::Test::HasFailure())
			return nth;
	}
	ADD_FAILURE() << "the operation never ran through";
	return 0;
}

#endif
