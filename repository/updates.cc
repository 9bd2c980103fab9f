#include "updates.h"

#include <algorithm>
#include <new>

namespace repository {

// The updates at the head of the queue that can go together. One that touches anything goes alone.
std::vector<Update *> Updates::next_batch()
{
	std::vector<Update *> batch;
	for (auto at = waiting_.begin(); at != waiting_.end();) {
		Update *update = *at;
		bool alone = update->group == 0;
		if (alone && !batch.empty())
			break;
		bool taken = std::any_of(batch.begin(), batch.end(),
		    [update](const Update *other) { return other->group == update->group; });
		if (taken) {
			++at;
			continue;
		}
		batch.push_back(update);
		at = waiting_.erase(at);
		if (alone)
			break;
	}
	return batch;
}

void Updates::carry_out(const std::vector<Update *> &batch)
{
	Rows rows;
	try {
		for (Update *update : batch) {
			size_t before = rows.size();
			update->error = update->prepare(&rows);
			if (update->error != RPY_ERROR_NONE || update->nothing)
				rows.resize(before, Row{Row::What::put_node, 0});
		}
	} catch (const std::bad_alloc &) {
		for (Update *update : batch)
			update->error = RPY_ERROR_NO_MEMORY;
		return;
	}
	rpy_error_t error = rows.empty() ? RPY_ERROR_NONE : store_->commit(rows, model_->next_id());
	for (Update *update : batch)
		if (update->error == RPY_ERROR_NONE && !update->nothing)
			update->error = error;
	if (error != RPY_ERROR_NONE)
		return;
	[&]() noexcept {
		WriteLock hold(model_->lock);
		for (Update *update : batch)
			if (update->error == RPY_ERROR_NONE && !update->nothing)
				update->apply();
	}();
}

rpy_error_t Updates::run(Update *update)
{
	std::unique_lock<std::mutex> hold(lock_);
	waiting_.push_back(update);
	while (!update->done) {
		if (leading_) {
			changed_.wait(hold);
			continue;
		}
		leading_ = true;
		std::vector<Update *> batch = next_batch();
		hold.unlock();
		carry_out(batch);
		hold.lock();
		leading_ = false;
		for (Update *done : batch)
			done->done = true;
		changed_.notify_all();
	}
	return update->error;
}

} // namespace repository
