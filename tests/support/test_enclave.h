// Enclaves for tests: a registry below a directory of their own, and a root directory. They need root.
#ifndef TESTS_TEST_ENCLAVE_H
#define TESTS_TEST_ENCLAVE_H

#include <functional>
#include <string>
#include <sys/types.h>

#include <gtest/gtest.h>

#include "child.h"
#include "scratch.h"

#include <meridon/enclave.h>

// The enclave exists as long as the object. MERIDON_ROOT points at its registry meanwhile, in the whole process; one
// object at a time.
class TestEnclave {
public:
	enum Kind {
		RootOnly,      // a root directory: entering is chroot
		Leader,        // a leader in a mount namespace of its own, whose root is the enclave's root
		LeaderInTree,  // a leader in a mount namespace of its own that sees the host's tree
		UserNamespace, // as Leader, in a user namespace too: its ids are the host's from 100000 on
	};

	explicit TestEnclave(Kind kind = RootOnly, enclaveid_t id = 5);
	~TestEnclave();
	TestEnclave(const TestEnclave &) = delete;
	TestEnclave &operator=(const TestEnclave &) = delete;

	enclaveid_t id() const { return id_; }
	pid_t leader() const { return leader_; }
	// The value of MERIDON_ROOT, and the enclave's root as the host sees it.
	const std::string &prefix() const { return place_.directory(); }
	const std::string &root() const { return root_; }
	// A path of the enclave as the host sees it. A leader has mounted something over /private that only it sees.
	std::string host_path(const std::string &path) const { return root_ + path; }

	// Files of the root, by their paths inside it. read() gives "<none>" for a missing one.
	void write(const std::string &path, const std::string &text) const;
	std::string read(const std::string &path) const;

	void set_state(enclave_state_t state);
	// Writes the record as it is given, well-formed or not.
	void write_record(const std::string &text) const;
	void kill_leader();

private:
	enclaveid_t id_;
	pid_t leader_ = 0;
	const Scratch place_;
	const std::string root_ = place_.path("root");

	void start_leader(Kind kind);
};

// Why there can be no enclaves of that kind here, or NULL.
const char *why_no_enclaves(TestEnclave::Kind kind = TestEnclave::RootOnly);

// The fullest kind that can be had, for a test that goes with any.
inline TestEnclave::Kind fullest_enclave()
{
	return why_no_enclaves(TestEnclave::Leader) == nullptr ? TestEnclave::Leader : TestEnclave::RootOnly;
}

#define SKIP_WITHOUT_ENCLAVES(...)                                                                                     \
	if (const char *why = why_no_enclaves(__VA_ARGS__))                                                            \
	GTEST_SKIP() << why

#endif
