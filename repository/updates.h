// Updates, in batches: those that wait at the same time and touch different groups share one commit of the store. The
// thread that finds nobody at work leads a batch, the others wait for it.
#ifndef REPOSITORY_UPDATES_H
#define REPOSITORY_UPDATES_H

#include <condition_variable>
#include <functional>
#include <mutex>

#include "model.h"
#include "store.h"

namespace repository {

struct Update {
	// Which group it changes, and nothing else; 0: it may change anything, and has a batch of its own.
	uint64_t group = 0;
	// Looks whether it can be done, and adds the rows that it changes. An error ends it.
	std::function<rpy_error_t(Rows *rows)> prepare;
	// Changes the tree, once the rows are durable. Called unless `prepare` set `nothing`. It may not fail: memory that
	// runs out here ends the daemon, and the next start reads what the store holds.
	std::function<void()> apply;
	bool nothing = false; // there is nothing to change
	rpy_error_t error = RPY_ERROR_NONE;
	bool done = false;
	Update *next = nullptr; // in the list that it is in
};

// Updates in the order in which they came. It takes no memory: an allocation that fails would leave an update in it that
// nobody carries out.
class UpdateList {
public:
	UpdateList() = default;
	UpdateList(const UpdateList &) = delete;
	UpdateList &operator=(const UpdateList &) = delete;

	Update *first() const { return first_; }
	void push(Update *update);
	// Takes out what `*at` leads to: first_, or the `next` of the one before.
	Update *take(Update **at);
	Update **begin() { return &first_; }

private:
	Update *first_ = nullptr;
	Update **end_ = &first_;
};

class Updates {
public:
	Updates(Model *model, Store *store) : model_(model), store_(store) {}

	// Carries an update out, and returns when it is durable or has failed.
	rpy_error_t run(Update *update);

private:
	void next_batch(UpdateList *batch);
	void carry_out(const UpdateList &batch) noexcept;

	Model *const model_;
	Store *const store_;
	std::mutex lock_;
	std::condition_variable changed_;
	UpdateList waiting_;
	bool leading_ = false;
};

} // namespace repository

#endif
