// Captures the library's log. The log goes to the standard error, which is a file in memory meanwhile.
#include "log_messages.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fmt/format.h>
#include <libostrel.h>
#include <meridon/progpath.h>

#include "failure.h"

namespace {

class CapturedErrors {
public:
	CapturedErrors()
	    : memory_(memfd_create("ostrel", MFD_CLOEXEC)), before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
	{
		(void) std::fflush(stderr);
		if (memory_ < 0 || dup2(memory_, STDERR_FILENO) < 0)
			throw Failure(Exit::failure, fmt::format("the log can't be read: {}", strerror(errno)));
		ostrel_log_open("stderr");
	}
	~CapturedErrors()
	{
		restore();
		(void) close(memory_);
	}
	CapturedErrors(const CapturedErrors &) = delete;
	CapturedErrors &operator=(const CapturedErrors &) = delete;

	std::string text()
	{
		restore();
		std::string text;
		char part[4096];
		off_t at = 0;
		for (ssize_t length; (length = pread(memory_, part, sizeof(part), at)) > 0; at += length)
			text.append(part, static_cast<size_t>(length));
		return text;
	}

private:
	void restore()
	{
		(void) std::fflush(stderr);
		ostrel_log_close();
		if (before_ < 0)
			return; // there was none, or it is back already
		(void) dup2(before_, STDERR_FILENO);
		(void) close(before_);
		before_ = -1;
	}

	int memory_;
	int before_;
};

// Each message is a line "program: priority: text"; a text may hold newlines of its own.
std::vector<std::string> split_messages(const std::string &text)
{
	const char *path = getprogpath();
	const std::string start = fmt::format("{}: ", path == nullptr ? "" : std::string(path).substr(0, 1023));
	std::vector<std::string> messages;
	for (size_t at = 0; at < text.size();) {
		size_t next = text.find("\n" + start, at);
		size_t end = next == std::string::npos ? text.size() - 1 : next;
		size_t body = std::min(text.find(": ", at + start.size()) + 2, end);
		messages.push_back(text.substr(body, end - body));
		at = end + 1;
	}
	return messages;
}

} // namespace

std::vector<std::string> log_messages(const std::function<void()> &what)
{
	CapturedErrors errors;
	what();
	return split_messages(errors.text());
}
