// Takes the log's messages while it lives, for white-box tests: a log type of the test's own is the chosen one.
#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "libostrel_log.h"

class LogCapture {
public:
	LogCapture()
	{
		ostrel_log_close();
		taken().clear();
		ostrel_log_type = &type;
	}
	~LogCapture() { ostrel_log_close(); }
	LogCapture(const LogCapture &) = delete;
	LogCapture &operator=(const LogCapture &) = delete;

	// Each message as "priority: text", up to now.
	static std::vector<std::string> lines()
	{
		std::lock_guard hold(mutex);
		return taken();
	}

private:
	static inline std::mutex mutex;
	static std::vector<std::string> &taken()
	{
		static std::vector<std::string> lines;
		return lines;
	}
	static void take(int priority, const char *text)
	{
		std::lock_guard hold(mutex);
		taken().push_back(std::to_string(priority) + ": " + text);
	}
	static constexpr struct ostrel_log_type type = {"captured by a test", nullptr, nullptr, take};
};

#endif
