// Takes the log's messages while it lives, for white-box tests: a log type of the test's own is the chosen one.
#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

#include "libostrel_log.h"

class LogCapture {
public:
	LogCapture()
	{
		ostrel_log_close();
		lines().clear();
		ostrel_log_type = &type;
	}
	~LogCapture() { ostrel_log_type = nullptr; }
	LogCapture(const LogCapture &) = delete;
	LogCapture &operator=(const LogCapture &) = delete;

	// Each message as "priority: text". Written under the log's mutex: look when no other thread logs any more.
	static std::vector<std::string> &lines()
	{
		static std::vector<std::string> lines;
		return lines;
	}

private:
	static void take(int priority, const char *text) { lines().push_back(std::to_string(priority) + ": " + text); }
	static constexpr struct ostrel_log_type type = {"captured by a test", nullptr, nullptr, take};
};

#endif
