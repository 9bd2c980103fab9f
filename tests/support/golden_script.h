// Tests that are parts of a file in tests/golden: steps, and what each gives.
#ifndef TESTS_GOLDEN_SCRIPT_H
#define TESTS_GOLDEN_SCRIPT_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// Rows as golden_rows() reads them: a command, its arguments, and "= result" if that isn't "ok". A row "[Suite.Name]" begins
// the part of that test, which register_parts() makes; "[Name]" that of a test which does more than to play it. {name} stands for a variable, also in a result.
//
// Commands on files, whose paths are below a root: write P TEXT, text P, mkdir P, fifo P, device P, socket P, link OLD NEW,
// symlink P TO, chmod P MODE, chown P UID GID, rename OLD NEW, remove P, list P, stat P (mode, owner and group); and umask MODE.
class GoldenScript {
public:
	using Arguments = std::vector<std::string>;
	using Command = std::function<std::string(const Arguments &)>;

	explicit GoldenScript(const std::string &root);
	// A command of the test's own. It may ask for more arguments than there are: these are empty.
	void add(const std::string &name, const Command &command) { commands_[name] = command; }
	void set(const std::string &variable, const std::string &value) { variables_[variable] = value; }
	// Plays the running test's part of a file.
	void play(const std::string &file);

private:
	std::string filled(std::string text) const;

	std::map<std::string, Command> commands_;
	std::map<std::string, std::string> variables_;
};

// The tests of a file, as "Suite.Name".
std::vector<std::string> golden_parts(const std::string &file);

// Makes the tests of a file, whose fixture plays their parts by play().
template <typename Fixture>
bool register_parts(const std::string &file)
{
	class Part : public Fixture {
		void TestBody() override { this->play(); }
	};
	for (const std::string &part : golden_parts(file)) {
		const size_t dot = part.find('.');
		testing::RegisterTest(part.substr(0, dot).c_str(), part.substr(dot + 1).c_str(), nullptr, nullptr,
		    file.c_str(), 0, []() -> Fixture * { return new Part; });
	}
	return true;
}

// "ok", or the name of an error number.
std::string error_name(int error);
// The same of a call that gives -1 and sets errno where it fails.
std::string error_name_of(ssize_t result);

#endif
