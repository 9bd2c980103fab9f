// The repository in memory: a tree of nodes. What a group holds is one immutable version, shared by the group and by the
// snapshots that were taken of it.
//
// Reads hold `lock` for reading. Updates come one batch after another (updates.h): they look at the tree without a lock,
// since nothing else changes it, and hold the lock for writing while they change it.
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
#include "store.h"

namespace repository {

using rpy::Parent;

struct Version {
	uint64_t id = 0; // 0: no properties, kept nowhere
	std::string properties;
	uint32_t nodes = 0; // stored nodes that hold it
};

// A service, an instance, a group, a snapshot, or a frozen group of a snapshot: what `kind` says.
struct Node {
	Parent kind = Parent::service;
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
	bool is_group() const { return kind == Parent::group || kind == Parent::frozen; }
};

bool same_without_case(std::string_view one, std::string_view other);

class Model {
public:
	Model();
	Model(const Model &) = delete;
	Model &operator=(const Model &) = delete;

	RwLock lock; // of readers and the update that changes

	// Finds a node by its id, or NULL.
	Node *find(uint64_t id) const;
	Node *find(Parent kind, uint64_t id) const;
	// Finds what is named so directly below `parent` (NULL: a service).
	Node *child(const Node *parent, Parent kind, std::string_view name) const;
	// All of that name without regard to case, by id.
	std::vector<Node *> children_without_case(const Node *parent, Parent kind, std::string_view name) const;

	const std::vector<Node *> &services() const { return services_; }
	uint64_t groups() const { return groups_; }

	// The next free id of what is kept, or of what ends with the daemon. A number that an update doesn't use is lost.
	uint64_t take_id(bool stored) { return stored ? next_++ : next_passing_++; }
	uint64_t next_id() const { return next_; }
	void set_next_id(uint64_t next) { next_ = next; }

	// ---- Changes ----

	// A type's text, kept once.
	const std::string *intern(std::string_view type) { return &*types_.emplace(type).first; }
	const std::shared_ptr<const Version> &no_properties() const { return empty_; }

	void add(std::unique_ptr<Node> node);
	// Takes a node out, with all that hangs below it.
	void remove(Node *node);
	void set_version(Node *node, std::shared_ptr<const Version> version);

	// The node and all below it, parents first.
	static std::vector<Node *> tree(Node *node);

private:
	void unlink(Node *node);

	std::unordered_map<uint64_t, std::unique_ptr<Node>> nodes_;
	std::unordered_multimap<size_t, Node *> names_; // by parent, kind and name without case
	std::vector<Node *> services_;
	std::set<std::string, std::less<>> types_;
	std::shared_ptr<const Version> empty_;
	uint64_t next_ = 2;
	uint64_t next_passing_;
	uint64_t groups_ = 0;
};

} // namespace repository

#endif
