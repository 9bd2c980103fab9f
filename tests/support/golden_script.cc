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

static std::string stat_text(const std::string &path)
{
	struct stat st;
	if (lstat(path.c_str(), &st) != 0)
		return error_name(errno);
	char text[64];
	snprintf(text, sizeof(text), "%04o %u %u", st.st_mode & 07777, st.st_uid, st.st_gid);
	return text;
}

static std::string list_text(const std::string &path)
{
	std::vector<std::string> names = entries_of(path);
	std::sort(names.begin(), names.end());
	std::string text;
	for (const std::string &name : names)
		text += (text.empty() ? "" : " ") + name;
	return text;
}

GoldenScript::GoldenScript(const std::string &root)
{
	auto on_files = [&](const char *name,
			    const std::function<std::string(const Arguments &, const char *path)> &run,
			    size_t path = 0) {
		add(name, [=](const Arguments &args) { return run(args, (root + "/" + args[path]).c_str()); });
	};
	auto number = [](const std::string &text) { return static_cast<unsigned>(std::stoul(text, nullptr, 0)); };
	auto node = [](mode_t mode, dev_t device) {
		return [=](const Arguments &, const char *path) { return error_name_of(mknod(path, mode, device)); };
	};
	on_files("write", [](const Arguments &args, const char *path) {
		FILE *file = fopen(path, "we");
		const bool written =
		    file != nullptr && fwrite(args[1].data(), 1, args[1].size(), file) == args[1].size();
		return error_name(file != nullptr && fclose(file) == 0 && written ? 0 : errno);
	});
	add("umask", [number](const Arguments &args) { return (void) umask(number(args[0])), "ok"; });
	on_files("text", [](const Arguments &, const char *path) { return file_text(path); });
	on_files("stat", [](const Arguments &, const char *path) { return stat_text(path); });
	on_files("list", [](const Arguments &, const char *path) { return list_text(path); });
	on_files("remove", [](const Arguments &, const char *path) { return error_name_of(::remove(path)); });
	on_files("mkdir", [](const Arguments &, const char *path) { return error_name_of(mkdir(path, 0755)); });
	on_files("fifo", node(S_IFIFO | 0666, 0));
	on_files("socket", node(S_IFSOCK | 0666, 0));
	on_files("device", node(S_IFCHR | 0666, makedev(1, 3)));
	on_files(
	    "symlink",
	    [](const Arguments &args, const char *path) { return error_name_of(symlink(args[0].c_str(), path)); }, 1);
	on_files(
	    "link",
	    [root](const Arguments &args, const char *path) {
		    return error_name_of(link((root + "/" + args[0]).c_str(), path));
	    },
	    1);
	on_files(
	    "rename",
	    [root](const Arguments &args, const char *path) {
		    return error_name_of(rename((root + "/" + args[0]).c_str(), path));
	    },
	    1);
	on_files(
	    "chmod",
	    [number](const Arguments &args, const char *path) { return error_name_of(chmod(path, number(args[0]))); },
	    1);
	on_files(
	    "chown",
	    [number](const Arguments &args, const char *path) {
		    return error_name_of(chown(path, number(args[0]), number(args[1])));
	    },
	    2);
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
	const std::string own = std::string("[") + testing::UnitTest::GetInstance()->current_test_info()->name() + "]";
	bool is_own = false;
	int steps = 0;
	for (const GoldenRow &row : golden_rows(file)) {
		if (row.line[0] == '[')
			is_own = row.line == own;
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
	EXPECT_GT(steps, 0) << "no part " << own << " in " << file;
}
