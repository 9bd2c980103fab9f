// The updates of the repository, a type for each. The fields at the top of each are what its request asks for; below them
// stands what it changed, which is final once the update has taken effect: replies are made of it, and it is all that
// somebody needs who wants to know what happened.
#ifndef REPOSITORY_CHANGES_H
#define REPOSITORY_CHANGES_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "updates.h"

namespace repository {

// A node that an update made or removed, and the version that it had; 0: none, or one without properties.
struct Touched {
	NodeKind kind;
	uint64_t node;
	uint64_t version;
};
using AllTouched = std::vector<Touched>;

// Nodes that an update makes, parents first. Until they are in the tree they name their parents by id.
class NewNodes {
public:
	void clear() { nodes_.clear(); }
	// Makes a node with a provisional id; 0 as parent: none.
	Node *make(Model *model, NodeKind kind, uint32_t flags, std::string_view name, uint64_t parent)
	    REQUIRES(model->leader);
	// Copies the stored groups below `from`, as nodes of another kind below the node `to`.
	void copy_groups(Model *model, const Node *from, uint64_t to, NodeKind kind) REQUIRES(model->leader);
	// Adds their rows, but for nodes that aren't stored.
	void add_rows(Rows *rows) const;
	// Puts them into the tree, with their final ids. What should hang below a node that has gone is left out.
	AllTouched put(Model *model, const Committed &made) REQUIRES(model->leader, model->lock);

	const Node &first() const { return *nodes_.front().node; }

private:
	struct New {
		std::unique_ptr<Node> node;
		uint64_t parent;
	};
	std::vector<New> nodes_;
};

// Adds one node, unless there is one of its name.
struct AddNode : Update {
	AddNode(rpy::Op its_request, NodeKind its_kind, std::string_view its_name, NodeKind its_parent_kind = {},
	    uint64_t its_parent = 0)
	    : Update(its_request), kind(its_kind), name(its_name), parent_kind(its_parent_kind), parent(its_parent)
	{}
	rpy_error_t prepare(Model &model, Rows *rows) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const NodeKind kind;
	const std::string_view name;
	const NodeKind parent_kind;
	const uint64_t parent; // 0: none
	// Of a group:
	std::string type;
	uint32_t flags = 0;
	uint64_t change = 0;

	uint64_t added = 0;

private:
	NewNodes nodes_;
};

// Removes a node of one of two kinds, with all below it.
struct RemoveNode : Update {
	RemoveNode(rpy::Op its_request, uint64_t its_node, NodeKind its_kind)
	    : Update(its_request), node(its_node), kind(its_kind), other_kind(its_kind)
	{}
	rpy_error_t prepare(Model &model, Rows *rows) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const uint64_t node;
	const NodeKind kind;
	NodeKind other_kind;
	bool all = true; // false: only if nothing hangs below it

	AllTouched removed; // parents first
};

// Removes a group, for a client that made or changed it and can't go on: what others have made or put there is theirs.
struct WithdrawGroup : Update {
	WithdrawGroup(NodeKind its_parent_kind, uint64_t its_parent, std::string_view its_name, uint64_t its_change)
	    : Update(rpy::Op::withdraw_group), parent_kind(its_parent_kind), parent(its_parent), name(its_name),
	      change(its_change)
	{}
	rpy_error_t prepare(Model &model, Rows *rows) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const NodeKind parent_kind;
	const uint64_t parent;
	const std::string_view name; // empty: the group is `parent`
	const uint64_t change;       // that all of it has to be part of

	AllTouched removed; // parents first
};

// One entry of a commit: a property of the group, and what becomes of it.
struct Entry {
	rpy::Change change;
	rpy::Property property;
	bool used = false; // while the entries are merged
};
using Entries = std::vector<Entry>;

// Gives a group a new version, if it has the version `base` still; else there is nothing to change.
struct Commit : Update {
	Commit(uint64_t its_group, uint64_t its_base) : Update(rpy::Op::commit, its_group), base(its_base) {}
	rpy_error_t prepare(Model &model, Rows *rows) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const uint64_t base;
	Entries entries;
	uint64_t change = 0;

	uint64_t before = 0, after = 0; // versions of the group

private:
	std::shared_ptr<Version> version_; // the new one
};

// Freezes the stored groups of an instance under a name. What it changed is named by the two snapshots alone: their frozen
// groups hang below them.
struct TakeSnapshot : Update {
	TakeSnapshot(uint64_t its_instance, std::string_view its_name, bool its_replace)
	    : Update(rpy::Op::take_snapshot), instance(its_instance), name(its_name), replace(its_replace)
	{}
	rpy_error_t prepare(Model &model, Rows *rows) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const uint64_t instance;
	const std::string_view name;
	const bool replace; // the snapshot of this name, which has to be there; false: there may be none

	uint64_t replaced = 0, taken = 0; // snapshots

private:
	NewNodes nodes_; // the new snapshot first
};

// Gives an instance the groups of one of its snapshots in place of its stored ones. Its temporary groups stay.
struct RevertSnapshot : Update {
	explicit RevertSnapshot(uint64_t its_snapshot) : Update(rpy::Op::revert_snapshot), snapshot(its_snapshot) {}
	rpy_error_t prepare(Model &model, Rows *rows) override REQUIRES(model.leader) REQUIRES_SHARED(model.lock);
	void apply(Model &model, const Committed &made) override REQUIRES(model.leader, model.lock);

	const uint64_t snapshot;

	uint64_t instance = 0;
	AllTouched removed, added; // parents first

private:
	NewNodes nodes_;
};

} // namespace repository

#endif
