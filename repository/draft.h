// What an update makes of the tree, gathered before anything changes: nodes that go, nodes that come, groups with another
// version. All updates change the tree through a draft, so that the rules of a change stand here once, for a request of its
// own as for a step of a batch.
//
// A step of a draft meets the tree as the steps before it leave it. The rows that come of them are those of the difference:
// what one step adds and a later one removes never reaches the store.
//
// Rules:
// - No pointer into the tree is kept, since others may change it before the draft takes effect (updates.h); apply() looks up
//   again. Versions are held, and never change.
// - Ids of what is new are provisional. No client knows one: what a client names is looked for in the tree, and what an
//   earlier step made is named by that step.
#ifndef REPOSITORY_DRAFT_H
#define REPOSITORY_DRAFT_H

#include <memory>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "model.h"
#include "store.h"

namespace repository {

// One entry of a commit: a property of the group, and what becomes of it.
struct Entry {
	rpy::Change change;
	rpy::Property property;
	bool used = false; // while the entries are merged
};
using Entries = std::vector<Entry>;

// A node to be added. The texts are the caller's.
struct NewNode {
	NodeKind kind;
	std::string_view name;
	uint64_t parent = 0; // 0: none
	// Of a group:
	std::string_view type = {};
	uint32_t flags = 0;
	uint64_t change = 0;
};

class Draft {
public:
	Draft() = default;
	Draft(const Draft &) = delete;
	Draft &operator=(const Draft &) = delete;

	void clear();

	// Whether a step removed a node of the tree.
	bool removes(uint64_t id) const { return gone_.count(id) != 0; }

	// ---- Steps ----

	// Adds a node, unless there is one of its name, below one of the tree or one that is new. Gives its id.
	rpy_error_t add(Model *model, const NewNode &what, uint64_t *id) REQUIRES(model->leader)
	    REQUIRES_SHARED(model->lock);
	// Removes a node of the tree with all below it, or, unless `all`, if there is nothing below it.
	rpy_error_t remove(Node *node, bool all);
	// Gives a group, of the tree or new, the properties that it has with the entries applied to them.
	rpy_error_t commit(Model *model, uint64_t group, Entries *entries, uint64_t change) REQUIRES(model->leader)
	    REQUIRES_SHARED(model->lock);
	// Adds a node without a look, and copies of the stored groups below `from`, as nodes of another kind below `to`.
	uint64_t put(Model *model, const NewNode &what) REQUIRES(model->leader);
	void copy_groups(Model *model, const Node *from, uint64_t to, NodeKind kind) REQUIRES(model->leader);

	// ---- Taking effect ----

	void add_rows(Rows *rows) const;
	// What should hang below a node that has gone is left out, and so is a new version of one.
	void apply(Model *model, const Committed &made) REQUIRES(model->leader, model->lock);

private:
	struct New {
		std::unique_ptr<Node> node;
		uint64_t parent;
		std::string_view type;
		std::shared_ptr<Version> version; // if it isn't one that the tree has
	};
	struct Changed {
		uint64_t group;
		std::shared_ptr<const Version> before;
		std::shared_ptr<Version> after;
		uint64_t change;
		bool stored;
	};
	struct Removed {
		uint64_t node;
		bool stored;
		std::shared_ptr<const Version> version;
	};

	New *find_new(uint64_t id);
	// A node as a parent: of the tree unless it goes, or a new one.
	const Node *find(const Model &model, uint64_t id) REQUIRES_SHARED(model.lock);
	bool has_child(const Model &model, const NewNode &what) REQUIRES_SHARED(model.lock);
	bool has_children(const Node &node) const;
	int depth_of(const Model &model, uint64_t id) REQUIRES_SHARED(model.lock);
	const Version *version_of(const Model &model, uint64_t group) REQUIRES_SHARED(model.lock);
	Node *make(Model *model, NodeKind kind, uint32_t flags, std::string_view name, uint64_t parent)
	    REQUIRES(model->leader);

	std::vector<New> new_;         // parents first
	std::vector<Changed> changed_; // one for each group
	std::vector<Removed> removed_; // what hangs below a node before it
	std::vector<uint64_t> roots_;  // of the trees that go
	std::unordered_set<uint64_t> gone_;
};

} // namespace repository

#endif
