// Update threads, as the process and its own audit records show them.
#include "update_threads.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <unistd.h>

#include <fmt/format.h>

#include "base/clock.h"

namespace {

// So many listings without a thread count as none.
constexpr int listings = 5;
constexpr int64_t between_listings_ns = 5 * millisecond_ns;

constexpr char update_thread_name[] = "ostrel_update"; // set before the caller gets its result

std::string name_of(pid_t process, pid_t thread)
{
	std::string name;
	std::ifstream comm(fmt::format("/proc/{}/task/{}/comm", process, thread));
	(void) std::getline(comm, name); // empty for a thread that has ended
	return name;
}

// Nothing if the process can't be looked at.
std::optional<std::vector<pid_t>> listing(pid_t process)
{
	std::vector<pid_t> threads;
	std::error_code failed;
	auto task = std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process), failed);
	if (failed)
		return std::nullopt;
	for (; !failed && task != std::filesystem::directory_iterator(); task.increment(failed)) {
		auto thread = static_cast<pid_t>(std::stol(task->path().filename().string()));
		if (is_update_thread(thread, process))
			threads.push_back(thread);
	}
	return threads;
}

} // namespace

bool is_update_thread(pid_t thread, pid_t process)
{
	return name_of(process, thread) == update_thread_name;
}

// A listing may miss threads while others end, as those of a revoked hatch do: an empty one is repeated.
std::vector<pid_t> update_threads()
{
	std::vector<pid_t> threads = listing(getpid()).value_or(std::vector<pid_t>());
	for (int i = 1; i < listings && threads.empty(); i++) {
		sleep_ns(between_listings_ns);
		threads = listing(getpid()).value_or(std::vector<pid_t>());
	}
	return threads;
}

std::optional<UpdateWatch::Attempt> UpdateWatch::last(pid_t thread)
{
	MutexLock guard(lock_);
	auto found = last_.find(thread);
	return found == last_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<pid_t> UpdateWatch::threads()
{
	std::vector<pid_t> all;
	MutexLock guard(lock_);
	for (const auto &entry : last_)
		all.push_back(entry.first);
	return all;
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
	} catch (const std::exception &) { // the thread then counts as one without records
	}
}

void UpdateWatch::keep(Attempt &&attempt)
{
	MutexLock guard(lock_);
	last_.insert_or_assign(gettid(), std::move(attempt));
	if (last_.size() < look_at_)
		return;
	std::erase_if(last_, [](const auto &entry) { return !is_update_thread(entry.first); });
	look_at_ = std::max(look_at_, 2 * last_.size());
}

Retries::State Retries::state() const
{
	if (is_unseen_)
		return State::unseen;
	bool going_on = false, refused = false, ended = false;
	for (pid_t thread : threads_) {
		// Looked at before its record, which then is the last one of a thread that has ended.
		const bool runs = is_update_thread(thread, process_);
		const std::optional<UpdateWatch::Attempt> last =
		    watch_ == nullptr ? std::nullopt : watch_->last(thread);
		if (last && last->landed)
			continue;
		(runs ? going_on : last ? refused : ended) = true;
	}
	if (going_on || refused || ended)
		return going_on ? State::going_on : refused ? State::refused : State::ended;
	return threads_.empty() ? State::none : State::landed;
}

void Retries::add(const Retries &other)
{
	std::set<pid_t> threads = std::move(threads_);
	*this = other;
	threads_.insert(threads.begin(), threads.end());
}

void Retries::look_again()
{
	for (int i = 1; i < listings && !is_unseen_ && threads_.empty(); i++) {
		sleep_ns(between_listings_ns);
		for (pid_t thread : listing(process_).value_or(std::vector<pid_t>()))
			if (others_.count(thread) == 0)
				threads_.insert(thread);
	}
}

RetryFinder::RetryFinder(UpdateWatch *watch)
{
	empty_.process_ = getpid();
	empty_.watch_ = watch;
	see_those_before();
}

RetryFinder::RetryFinder(std::optional<pid_t> server)
{
	empty_.is_by_server_ = true;
	empty_.process_ = server.value_or(0);
	see_those_before();
}

void RetryFinder::see_those_before()
{
	empty_.is_unseen_ = empty_.process_ == 0 || !listing(empty_.process_);
	(void) find();
}

Retries RetryFinder::find()
{
	Retries found = empty_;
	found.others_ = known_;
	if (found.is_unseen_)
		return found;
	std::vector<pid_t> threads = // none of a process that has ended meanwhile
	    listing(found.process_).value_or(std::vector<pid_t>());
	if (found.watch_ != nullptr)
		for (pid_t recorded : found.watch_->threads()) // also those that have ended already
			threads.push_back(recorded);
	for (pid_t thread : threads)
		if (known_.insert(thread).second)
			found.threads_.insert(thread);
	return found;
}
