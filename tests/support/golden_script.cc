#include "golden_script.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "golden_rows.h"
#include "scratch.h"

std::string error_name(int error)
{
	return error == 0 ? "ok" : strerrorname_np(error);
}

std::string error_name_of(ssize_t result)
{
	return error_name(result < 0 ? errno : 0);
}

namespace {

using Arguments = GoldenScript::Arguments;

unsigned number(const std::string &text)
{
	return static_cast<unsigned>(std::stoul(text, nullptr, 0));
}

std::string written(const char *path, const char *, const Arguments &args)
{
	FILE *file = fopen(path, "we");
	const bool whole = file != nullptr && fwrite(args[1].data(), 1, args[1].size(), file) == args[1].size();
	return error_name(file != nullptr && fclose(file) == 0 && whole ? 0 : errno);
}

std::string state(const char *path, const char *, const Arguments &)
{
	struct stat st;
	char text[64];
	if (lstat(path, &st) != 0)
		return error_name(errno);
	snprintf(text, sizeof(text), "%04o %u %u", st.st_mode & 07777, st.st_uid, st.st_gid);
	return text;
}

std::string listed(const char *path, const char *, const Arguments &)
{
	std::vector<std::string> names = entries_of(path);
	std::sort(names.begin(), names.end());
	std::string text;
	for (const std::string &name : names)
		text += (text.empty() ? "" : " ") + name;
	return text;
}

template <mode_t Mode>
std::string made(const char *path, const char *, const Arguments &)
{
	return error_name_of(mknod(path, Mode | 0666, S_ISCHR(Mode) ? makedev(1, 3) : 0));
}

// With the first two arguments as paths below the root.
const struct {
	const char *name;
	std::string (*run)(const char *path, const char *other, const Arguments &args);
} file_commands[] = {
    {"write", written},
    {"stat", state},
    {"list", listed},
    {"fifo", made<S_IFIFO>},
    {"socket", made<S_IFSOCK>},
    {"device", made<S_IFCHR>},
    {"text", [](auto path, auto, auto &) { return file_text(path); }},
    {"mkdir", [](auto path, auto, auto &) { return error_name_of(mkdir(path, 0755)); }},
    {"remove", [](auto path, auto, auto &) { return error_name_of(remove(path)); }},
    {"link", [](auto path, auto other, auto &) { return error_name_of(link(path, other)); }},
    {"rename", [](auto path, auto other, auto &) { return error_name_of(rename(path, other)); }},
    {"symlink", [](auto path, auto, auto &args) { return error_name_of(symlink(args[1].c_str(), path)); }},
    {"chmod", [](auto path, auto, auto &args) { return error_name_of(chmod(path, number(args[1]))); }},
    {"chown", [](auto path, auto, auto &args) { return error_name_of(chown(path, number(args[1]), number(args[2]))); }},
};

} // namespace

GoldenScript::GoldenScript(const std::string &root)
{
	for (const auto &command : file_commands)
		add(command.name, [&command, root](const Arguments &args) {
			return command.run((root + "/" + args[0]).c_str(), (root + "/" + args[1]).c_str(), args);
		});
	add("umask", [](const Arguments &args) {
		(void) umask(number(args[0]));
		return "ok";
	});
}

std::vector<std::string> golden_parts(const std::string &file)
{
	std::vector<std::string> parts;
	for (const GoldenRow &row : golden_rows(file))
		if (row.line[0] == '[' && row.line.find('.') != std::string::npos)
			parts.push_back(row.line.substr(1, row.line.size() - 2));
	if (parts.empty())
		abort(); // tests that aren't there fail nowhere
	return parts;
}

std::string GoldenScript::filled(std::string text) const
{
	for (const auto &[name, value] : variables_)
		for (size_t at; (at = text.find("{" + name + "}")) != std::string::npos;)
			text.replace(at, name.size() + 2, value);
	return text;
}

void GoldenScript::play(const std::string &file)
{
	const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
	const std::string name = test->name(), own = std::string(test->test_suite_name()) + "." + name;
	bool is_own = false;
	int steps = 0;
	for (const GoldenRow &row : golden_rows(file)) {
		if (row.line[0] == '[')
			is_own = row.line == "[" + own + "]" || row.line == "[" + name + "]";
		if (!is_own || row.line[0] == '[')
			continue;
		SCOPED_TRACE(file + ": " + row.line);
		Arguments args;
		std::string expected = "ok";
		for (size_t i = 1; i < row.fields.size(); i++) {
			if (row[i] == "=" || row[i].rfind("= ", 0) == 0)
				expected = filled(row[i].substr(std::min<size_t>(row[i].size(), 2)));
			else
				args.push_back(filled(row[i]));
		}
		args.resize(std::max<size_t>(args.size(), 8));
		ASSERT_TRUE(commands_.count(row[0]) != 0) << "no such command";
		EXPECT_EQ(commands_.at(row[0])(args), expected);
		steps++;
	}
	EXPECT_GT(steps, 0) << "no part of " << own << " in " << file;
}
