#include "updates.h"

#include <new>

namespace repository {

void UpdateList::push(Update *update)
{
	update->next = nullptr;
	*end_ = update;
	end_ = &update->next;
}

Update *UpdateList::take(Update **at)
{
	Update *taken = *at;
	*at = taken->next;
	if (end_ == &taken->next)
		end_ = at;
	return taken;
}

namespace {

bool touches(const UpdateList &batch, uint64_t group)
{
	for (const Update *update = batch.first(); update != nullptr; update = update->next)
		if (update->group == group)
			return true;
	return false;
}

} // namespace

// The updates at the head of the queue that can go together. One that touches anything goes alone.
void Updates::next_batch(UpdateList *batch)
{
	for (Update **at = waiting_.begin(); *at != nullptr;) {
		const bool alone = (*at)->group == 0;
		if (alone && batch->first() != nullptr)
			return;
		if (!alone && touches(*batch, (*at)->group)) {
			at = &(*at)->next;
			continue;
		}
		batch->push(waiting_.take(at));
		if (alone)
			return;
	}
}

void Updates::carry_out(const UpdateList &batch) noexcept
{
	Rows rows;
	try {
		for (Update *update = batch.first(); update != nullptr; update = update->next) {
			size_t before = rows.size();
			update->error = update->prepare(&rows);
			if (update->error != RPY_ERROR_NONE || update->nothing)
				rows.resize(before, Row{Row::What::put_node, 0});
		}
	} catch (const std::bad_alloc &) {
		for (Update *update = batch.first(); update != nullptr; update = update->next)
			update->error = RPY_ERROR_NO_MEMORY;
		return;
	}
	rpy_error_t error = rows.empty() ? RPY_ERROR_NONE : store_->commit(rows, model_->next_id()).error;
	for (Update *update = batch.first(); update != nullptr; update = update->next)
		if (update->error == RPY_ERROR_NONE && !update->nothing)
			update->error = error;
	if (error != RPY_ERROR_NONE)
		return;
	WriteLock hold(model_->lock);
	for (Update *update = batch.first(); update != nullptr; update = update->next)
		if (update->error == RPY_ERROR_NONE && !update->nothing)
			update->apply();
}

rpy_error_t Updates::run(Update *update)
{
	std::unique_lock<std::mutex> hold(lock_);
	waiting_.push(update);
	while (!update->done) {
		if (leading_) {
			changed_.wait(hold);
			continue;
		}
		leading_ = true;
		UpdateList batch;
		next_batch(&batch);
		hold.unlock();
		carry_out(batch);
		hold.lock();
		leading_ = false;
		for (Update *done = batch.first(); done != nullptr; done = done->next)
			done->done = true; // its memory is its thread's again once the lock is free
		changed_.notify_all();
	}
	return update->error;
}

} // namespace repository
