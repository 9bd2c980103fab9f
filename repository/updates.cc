// How a batch is put together, and what becomes of it.
//
// Order. Updates of one group are carried out in the order in which they came: the second waits for a later batch. One that
// may change anything (group 0) has a batch of its own, and none that came after it overtakes it.
//
// A leader's batch needn't hold its own update. It leads, or waits for other leaders, until that one is done.
//
// The updates lie on the stacks of threads that wait in run(), and so do the names and properties that rows refer to: they are
// there until `done` is set.
#include "updates.h"

#include <new>

namespace repository {
namespace {

// How often a batch is prepared while others keep being faster.
constexpr int tries_max = 16;

bool touches(const UpdateList &batch, uint64_t group)
{
	for (const Update *update = batch.first(); update != nullptr; update = update->next)
		if (update->group == group)
			return true;
	return false;
}

// Ends those that would have taken effect.
void refuse(const UpdateList &batch, rpy_error_t error)
{
	for (Update *update = batch.first(); update != nullptr; update = update->next)
		if (update->takes_effect())
			update->error = error;
}

} // namespace

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

// Takes the updates at the head of the queue that can share a commit. One that may change anything goes alone.
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

Rows Updates::prepare(const UpdateList &batch)
{
	Rows rows;
	model_->look_as_leader();
	for (Update *update = batch.first(); update != nullptr; update = update->next) {
		const size_t before = rows.size();
		update->nothing = false;
		update->error = update->prepare(*model_, &rows);
		// One that is refused half-way leaves no rows among those of the others.
		if (!update->takes_effect())
			rows.erase(rows.begin() + static_cast<ptrdiff_t>(before), rows.end());
	}
	return rows;
}

// Readers go on during the first two steps: the model's lock is taken for writing only once everything is durable. No rows,
// of temporary groups alone for instance, need no commit.
//
// noexcept is the rule of updates.h: what apply() throws can't be taken back any more, so it ends the daemon. Before the
// commit, memory that runs out refuses the whole batch, since it may be short because of any of them.
void Updates::carry_out(const UpdateList &batch) noexcept
{
	Committed made;
	for (int tries = 0; tries == 0 || (made.is_stale && tries < tries_max); tries++) {
		Rows rows;
		try {
			rows = prepare(batch);
		} catch (const std::bad_alloc &) {
			for (Update *update = batch.first(); update != nullptr; update = update->next)
				update->error = RPY_ERROR_NO_MEMORY;
			return;
		}
		made = rows.empty() ? Committed() : store_->commit(rows, model_->next_id());
	}
	if (made.is_stale && made.error == RPY_ERROR_NONE) // nothing is durable
		made.error = RPY_ERROR_INTERNAL;
	if (made.error != RPY_ERROR_NONE)
		return refuse(batch, made.error);
	WriteLock hold(model_->lock);
	for (Update *update = batch.first(); update != nullptr; update = update->next)
		if (update->takes_effect()) {
			update->revision = made.revision;
			update->apply(*model_, made);
		}
}

rpy_error_t Updates::run(Update *update)
{
	MutexLock hold(lock_);
	waiting_.push(update);
	while (!update->done) {
		if (is_led_) {
			changed_.wait(lock_);
			continue;
		}
		is_led_ = true;
		UpdateList batch;
		next_batch(&batch);
		{
			Unlocked others(lock_);
			InRole leading(model_->leader);
			carry_out(batch);
		}
		is_led_ = false;
		for (Update *done = batch.first(); done != nullptr; done = done->next)
			done->done = true; // its memory is its thread's again once the lock is free
		changed_.notify_all();
	}
	return update->error;
}

} // namespace repository
