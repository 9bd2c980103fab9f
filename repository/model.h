// The repository in memory: a tree of nodes. What a group holds is one immutable version, shared by the group and by the
// snapshots that were taken of it.
//
// Rules, most of which clang's thread-safety analysis holds:
// - `lock` guards the tree. A reader holds it for reading while it copies what it needs, or shares a version.
// - `leader` is the role of the one thread that carries updates out at a time (updates.h). Only that thread changes the tree,
//   so it may look at it without the lock (look_as_leader()). It holds the lock for writing while it changes the tree.
// - A version that is in the tree never changes, but for the count of nodes that hold it. A reader that shares one goes on
//   reading its properties when it has given up the lock. A type's text lives as long as the model.
// - An id names one node or one version and never comes again. Ids of what is kept rise over all daemons of a store; those of
//   what ends with this daemon lie above them and are written down nowhere.
#ifndef REPOSITORY_MODEL_H
#define REPOSITORY_MODEL_H

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/thread_safety.h"
#include "rpy/wire.h"

namespace repository {

using NodeKind = rpy::Parent;

struct Version {
	uint64_t id = 0; // 0: no properties, not in the store
	std::string properties;
	mutable uint32_t holders = 0; // stored nodes that hold it; the model's own count, guarded as the tree is
};

// A service, an instance, a group, a snapshot, or a frozen group of a snapshot: what `kind` says.
struct Node {
	NodeKind kind = NodeKind::service;
	uint32_t flags = 0;
	uint64_t id = 0;
	uint64_t change = 0; // of a group: as part of which it was made or last changed; 0 if that isn't known
	Node *parent = nullptr;
	std::string name;
	const std::string *type = nullptr;      // of groups
	std::shared_ptr<const Version> version; // of groups
	std::vector<Node *> groups;             // by id
	std::vector<Node *> members;            // by id: instances of a service, snapshots of an instance

	bool stored() const { return (flags & RPY_PG_FLAG_TEMPORARY) == 0; }
	bool is_group() const { return kind == NodeKind::group || kind == NodeKind::frozen; }
	// The kind of the groups that hang below it.
	NodeKind group_kind() const
	{
		return kind == NodeKind::snapshot || kind == NodeKind::frozen ? NodeKind::frozen : NodeKind::group;
	}
};

class Model {
public:
	Model();
	Model(const Model &) = delete;
	Model &operator=(const Model &) = delete;
	~Model() { lock.destroy(); }

	RwLock lock; // writers first: readers that keep coming don't keep an update from taking effect
	Role leader;

	// Lets the leader look at the tree without the lock.
	void look_as_leader() const REQUIRES(leader) ASSERT_SHARED_CAPABILITY(lock) {}

	// ---- Looking ----

	// Finds a node by its id, or NULL.
	Node *find(uint64_t id) const REQUIRES_SHARED(lock);
	Node *find(NodeKind kind, uint64_t id) const REQUIRES_SHARED(lock);
	// Finds the node of that name directly below `parent` (NULL: a service).
	Node *child(const Node *parent, NodeKind kind, std::string_view name) const REQUIRES_SHARED(lock);
	// All of that name without regard to case, by id.
	std::vector<Node *> children_without_case(const Node *parent, NodeKind kind, std::string_view name) const
	    REQUIRES_SHARED(lock);

	const std::vector<Node *> &services() const REQUIRES_SHARED(lock) { return services_; }
	uint64_t groups() const REQUIRES_SHARED(lock) { return groups_; }

	// The node and all below it, parents first.
	static std::vector<Node *> tree(Node *node);

	// The version of every group that never had a property.
	const std::shared_ptr<const Version> &no_properties() const { return empty_; }

	// ---- Changing ----

	// The next free id of what is stored, or of what ends with the daemon. An id that an update doesn't use is lost.
	uint64_t take_id(bool stored) REQUIRES(leader) { return stored ? next_++ : next_passing_++; }
	uint64_t next_id() const REQUIRES(leader) { return next_; }
	void set_next_id(uint64_t next) REQUIRES(leader) { next_ = next; }

	// A type's text, kept once.
	const std::string *intern(std::string_view type) REQUIRES(leader, lock) { return &*types_.emplace(type).first; }

	void add(std::unique_ptr<Node> node) REQUIRES(leader, lock);
	// Takes a node out, with all that hangs below it.
	void remove(Node *node) REQUIRES(leader, lock);
	void set_version(Node *node, std::shared_ptr<const Version> version) REQUIRES(leader, lock);

private:
	void unlink(Node *node) REQUIRES(leader, lock);

	std::unordered_map<uint64_t, std::unique_ptr<Node>> nodes_ GUARDED_BY(lock);
	std::unordered_multimap<size_t, Node *> names_ GUARDED_BY(lock); // by parent, kind and name without case
	std::vector<Node *> services_ GUARDED_BY(lock);
	std::set<std::string, std::less<>> types_ GUARDED_BY(lock);
	uint64_t groups_ GUARDED_BY(lock) = 0;
	std::shared_ptr<const Version> empty_;
	uint64_t next_ GUARDED_BY(leader) = 2;
	uint64_t next_passing_ GUARDED_BY(leader);
};

} // namespace repository

#endif
