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

constexpr char update_thread_name[] = "ostrel_update";
constexpr char refresh_thread_name[] = "ostrel_refresh"; // the library's, for the snapshots of a repository

std::string name_of(pid_t thread)
{
	std::string name;
	std::ifstream comm(fmt::format("/proc/self/task/{}/comm", thread));
	(void) std::getline(comm, name); // empty for one that has ended
	return name;
}

// The threads of this process, as one listing shows them. Until a new one has named itself, it bears its maker's name.
struct Listing {
	std::vector<pid_t> updates;
	bool has_unknown = false; // one that may be the thread of an update, or ends

	Listing()
	{
		std::error_code failed;
		for (auto task = std::filesystem::directory_iterator("/proc/self/task", failed);
		     !failed && task != std::filesystem::directory_iterator(); task.increment(failed))
			add(static_cast<pid_t>(std::stol(task->path().filename().string())));
	}

private:
	void add(pid_t thread)
	{
		const std::string name = name_of(thread);
		if (name == update_thread_name)
			updates.push_back(thread);
		else if (thread != getpid() && name != refresh_thread_name)
			has_unknown = true;
	}
};

} // namespace

bool is_update_thread(pid_t thread)
{
	return name_of(thread) == update_thread_name;
}

// A listing may also pass over threads while others end, as those of a hatch do that is revoked. So it counts once nothing
// unknown is there, and none counts only if it is said again.
std::vector<pid_t> update_threads()
{
	constexpr int listings = 100;
	constexpr std::chrono::milliseconds pause(5);
	Listing now;
	for (int i = 1; i < listings && now.has_unknown; i++) {
		std::this_thread::sleep_for(pause);
		now = Listing();
	}
	return now.updates.empty() ? Listing().updates : now.updates;
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
