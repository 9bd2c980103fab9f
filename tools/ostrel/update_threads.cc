// Update threads, as the process and its own audit records show them.
#include "update_threads.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace {

constexpr char update_thread_name[] = "ostrel_update"; // which each has before its update is known to be put off

std::string name_of(pid_t thread)
{
	std::string name;
	std::ifstream comm(fmt::format("/proc/self/task/{}/comm", thread));
	(void) std::getline(comm, name); // empty for one that has ended
	return name;
}

std::vector<pid_t> listing()
{
	std::vector<pid_t> threads;
	std::error_code failed;
	for (auto task = std::filesystem::directory_iterator("/proc/self/task", failed);
	     !failed && task != std::filesystem::directory_iterator(); task.increment(failed)) {
		auto thread = static_cast<pid_t>(std::stol(task->path().filename().string()));
		if (is_update_thread(thread))
			threads.push_back(thread);
	}
	return threads;
}

} // namespace

bool is_update_thread(pid_t thread)
{
	return name_of(thread) == update_thread_name;
}

// One listing may pass over threads while others end, as those of a hatch do that is revoked: none counts only if it is
// said again.
std::vector<pid_t> update_threads()
{
	constexpr int listings = 5;
	constexpr std::chrono::milliseconds pause(5);
	std::vector<pid_t> threads = listing();
	for (int i = 1; i < listings && threads.empty(); i++) {
		std::this_thread::sleep_for(pause);
		threads = listing();
	}
	return threads;
}

std::optional<UpdateWatch::Attempt> UpdateWatch::last(pid_t thread)
{
	std::lock_guard<std::mutex> guard(lock_);
	auto found = last_.find(thread);
	return found == last_.end() ? std::nullopt : std::optional(found->second);
}

// Runs on the thread of the update, below a C library.
void UpdateWatch::take(void *cookie, trl_event_t event, const trl_object_t *object, int status, int)
{
	char name[16];
	if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0 || std::strcmp(name, update_thread_name) != 0)
		return;
	try {
		static_cast<UpdateWatch *>(cookie)->keep(
		    {object->object_name, event == TRL_ostrel_remove ? "remove" : "update", status == TRL_SUCCESS});
	} catch (const std::exception &) { // it stays one without a name
	}
}

void UpdateWatch::keep(Attempt &&attempt)
{
	std::lock_guard<std::mutex> guard(lock_);
	last_.insert_or_assign(gettid(), std::move(attempt));
	if (last_.size() < look_at_)
		return;
	std::erase_if(last_, [](const auto &entry) { return !is_update_thread(entry.first); });
	look_at_ = std::max(look_at_, 2 * last_.size());
}
