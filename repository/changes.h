// The updates of the repository, a type for each. The fields of each are what its request asks for; what it changes stands in
// its draft.
#ifndef REPOSITORY_CHANGES_H
#define REPOSITORY_CHANGES_H

#include <string>
#include <string_view>
#include <vector>

#include "draft.h"
#include "updates.h"

namespace repository {

// An update that changes the tree by a draft.
struct Drafted : Update {
	using Update::Update;
	rpy_error_t prepare(Model &model, Rows *rows) final REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	// Fills the draft. RPY_ERROR_NONE, or why the update is refused. Sets `nothing` if there is nothing to change.
	virtual rpy_error_t decide(Model &model) REQUIRES(model.leader) REQUIRES_SHARED(model.lock) = 0;

protected:
	Draft draft;
};

// Adds one node, unless there is one of its name.
struct AddNode : Drafted {
	AddNode(rpy::Op its_request, const NewNode &its_node, NodeKind its_parent_kind = {})
	    : Drafted(its_request), node(its_node), parent_kind(its_parent_kind)
	{}
	rpy_error_t decide(Model &model) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const NewNode node;
	const NodeKind parent_kind;

	uint64_t added = 0; // its id, provisional until the update has taken effect
};

// Removes a node of one of two kinds, with all below it.
struct RemoveNode : Drafted {
	RemoveNode(rpy::Op its_request, uint64_t its_node, NodeKind its_kind)
	    : Drafted(its_request), node(its_node), kind(its_kind), other_kind(its_kind)
	{}
	rpy_error_t decide(Model &model) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);

	const uint64_t node;
	const NodeKind kind;
	NodeKind other_kind;
	bool all = true; // false: only if nothing hangs below it
};

// Removes a group, for a client that made or changed it and can't go on: what others have made or put there is theirs.
struct WithdrawGroup : Drafted {
	WithdrawGroup(NodeKind its_parent_kind, uint64_t its_parent, std::string_view its_name, uint64_t its_change)
	    : Drafted(rpy::Op::withdraw_group), parent_kind(its_parent_kind), parent(its_parent), name(its_name),
	      change(its_change)
	{}
	rpy_error_t decide(Model &model) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);

	const NodeKind parent_kind;
	const uint64_t parent;
	const std::string_view name; // empty: the group is `parent`
	const uint64_t change;       // that all of it has to be part of
};

// Gives a group a new version, if it has the version `base` still; else there is nothing to change.
struct Commit : Drafted {
	Commit(uint64_t its_group, uint64_t its_base) : Drafted(rpy::Op::commit, its_group), base(its_base) {}
	rpy_error_t decide(Model &model) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);

	const uint64_t base;
	Entries entries;
	uint64_t change = 0;
};

// Carries several steps out, all or none, if its conditions hold; else there is nothing to change.
struct Batch : Drafted {
	Batch() : Drafted(rpy::Op::batch) {}
	rpy_error_t decide(Model &model) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);

	// The group `id` has this version, or there is no node of this name below `id`.
	struct Condition {
		rpy::Expect what;
		NodeKind kind; // of `id`
		uint64_t id;
		uint64_t version = 0;
		std::string_view name = {};
	};
	struct Step {
		rpy::Step what;
		NodeKind kind =
		    {}; // of `id`; none if that is the number of an earlier step, which stands for what it added
		uint64_t id = 0; // below which to add, or of the group
		std::string_view name = {}, type = {};
		uint32_t flags = 0;
		uint64_t base = 0; // the version that the group has before the first step
		Entries entries = {};
		bool all = true; // of a removal
	};
	std::vector<Condition> conditions;
	std::vector<Step> steps;
	uint64_t change = 0;

	// The number of the condition or step, conditions first, that doesn't hold or can't be carried out.
	static constexpr uint32_t none = UINT32_MAX;
	uint32_t failed = none;

private:
	rpy_error_t carry_out(Model &model, Step *step, std::vector<uint64_t> *added) REQUIRES(model.leader)
	    REQUIRES_SHARED(model.lock);
};

// Freezes the stored groups of an instance under a name.
struct TakeSnapshot : Drafted {
	TakeSnapshot(uint64_t its_instance, std::string_view its_name, bool its_replace)
	    : Drafted(rpy::Op::take_snapshot), instance(its_instance), name(its_name), replace(its_replace)
	{}
	rpy_error_t decide(Model &model) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const uint64_t instance;
	const std::string_view name;
	const bool replace; // the snapshot of this name, which has to be there; false: there may be none

	uint64_t taken = 0; // the snapshot's id, provisional until the update has taken effect
};

// Gives an instance the groups of one of its snapshots in place of its stored ones. Its temporary groups stay.
struct RevertSnapshot : Drafted {
	explicit RevertSnapshot(uint64_t its_snapshot) : Drafted(rpy::Op::revert_snapshot), snapshot(its_snapshot) {}
	rpy_error_t decide(Model &model) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);

	const uint64_t snapshot;
};

} // namespace repository

#endif
