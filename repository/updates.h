// Updates, in batches: those that wait at the same time and touch different groups share one commit of the store. The
// thread that finds no leader leads a batch; the others wait for it.
//
// An update goes through three steps, all on the leader's thread:
//   prepare  looks at the tree, refuses the update or adds the rows that it changes. The tree stays as it is.
//   commit   the store makes the rows of the whole batch durable, or none of them.
//   apply    changes the tree, under the model's lock for writing.
//
// Rules:
// - The ids that `prepare` takes are provisional: the final ones are the commit's answer.
// - `prepare` may be called again, if the store says at the commit that others were faster. It begins from nothing then.
// - No pointer into the tree is kept from `prepare` to `apply`: a store that others share may bring their changes in between.
//   `apply` looks up again, by id, and leaves out what has gone.
// - Until the commit a failure, memory that runs out included, leaves store and tree as they were. After it nothing may fail:
//   memory that runs out ends the daemon, and the next start reads what the store holds.
// - `lock_` guards the queue and who leads. It is never held around a step.
#ifndef REPOSITORY_UPDATES_H
#define REPOSITORY_UPDATES_H

#include "base/thread_safety.h"
#include "model.h"
#include "rpy/wire.h"
#include "store.h"

namespace repository {

// What is to be changed and, once it is, what was: each kind of update is a type of its own (changes.h). It lies on the stack of
// the thread that serves its request.
struct Update {
	// `its_group` is the one group that it changes; 0: it may change anything, and has a batch of its own.
	explicit Update(rpy::Op its_request, uint64_t its_group = 0) : request(its_request), group(its_group) {}
	Update(const Update &) = delete;
	Update &operator=(const Update &) = delete;
	virtual ~Update() = default;

	// RPY_ERROR_NONE, or why the update is refused. Sets `nothing` if there is nothing to change.
	virtual rpy_error_t prepare(Model &model, Rows *rows) REQUIRES(model.leader) REQUIRES_SHARED(model.lock) = 0;
	// Called if the update is neither refused nor nothing, once its rows are durable.
	virtual void apply(Model &model, const Committed &made) REQUIRES(model.leader, model.lock) = 0;

	bool takes_effect() const { return error == RPY_ERROR_NONE && !nothing; }

	const rpy::Op request; // that it carries out
	const uint64_t group;
	bool nothing = false;
	rpy_error_t error = RPY_ERROR_NONE;
	uint64_t revision = 0; // of the commit that made it durable; 0: nothing of it is kept

	// Its place in Updates.
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
	Updates(Model *model, Store *store) : model_(model), store_(store)
	{
		lock_.init();
		changed_.init();
	}
	Updates(const Updates &) = delete;
	Updates &operator=(const Updates &) = delete;
	~Updates()
	{
		changed_.destroy();
		lock_.destroy();
	}

	// Carries an update out, and returns when it is durable or has failed.
	rpy_error_t run(Update *update) EXCLUDES(lock_);

private:
	void next_batch(UpdateList *batch) REQUIRES(lock_);
	void carry_out(const UpdateList &batch) noexcept REQUIRES(model_->leader);
	Rows prepare(const UpdateList &batch) REQUIRES(model_->leader);

	Model *const model_;
	Store *const store_;
	Mutex lock_;
	CondVar changed_; // an update is done, or there is no leader
	UpdateList waiting_ GUARDED_BY(lock_);
	bool is_led_ GUARDED_BY(lock_) = false;
};

} // namespace repository

#endif
