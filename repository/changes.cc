// What each update looks at, the rows that it makes, and what it changes in the tree. updates.h has the rules of these steps.
//
// Rows stand in an order in which each finds what it needs: a parent and a version before the node that names them; going, what
// hangs below before what it hangs from, and a node before its version; and what gives up a name before what takes it, since
// the store has an index of names that is never wrong, not even within a transaction.
//
// A version's row goes with the last stored node that holds it. It is held by one group at most, and by the frozen groups that
// were made of it: so no two commits of a batch, which are of different groups, give up the same one.
//
// prepare() may run again: it begins by clearing what an earlier run left in the update.
//
// Divisions: new nodes; removing; adding; commits; snapshots.
#include "changes.h"

#include <unordered_map>

namespace repository {

using namespace rpy;

// ---- New nodes ----

Node *NewNodes::make(Model *model, NodeKind kind, uint32_t flags, std::string_view name, uint64_t parent)
{
	auto node = std::make_unique<Node>();
	node->kind = kind;
	node->flags = flags;
	node->id = model->take_id(node->stored());
	node->name = name;
	return nodes_.emplace_back(New{std::move(node), parent}).node.get();
}

void NewNodes::copy_groups(Model *model, const Node *from, uint64_t to, NodeKind kind)
{
	std::vector<std::pair<const Node *, uint64_t>> pairs = {{from, to}};
	for (size_t i = 0; i < pairs.size(); i++) {
		const auto [source, target] = pairs[i];
		for (const Node *group : source->groups) {
			if (!group->stored())
				continue;
			Node *copy = make(model, kind, group->flags, group->name, target);
			copy->type = group->type;
			copy->version = group->version;
			pairs.emplace_back(group, copy->id);
		}
	}
}

// The rows refer to the names in the nodes, which stay where they are until put().
void NewNodes::add_rows(Rows *rows) const
{
	for (const auto &[node, parent] : nodes_)
		if (node->stored())
			rows->push_back({Row::What::put_node, node->id, static_cast<uint32_t>(node->kind), parent,
			    node->version ? node->version->id : 0, node->name,
			    node->type == nullptr ? std::string_view() : *node->type, {}});
}

// A parent may have gone since the rows were prepared, if others change the store as well. What should hang below it is left
// out, and then what should hang below that, since it finds no parent either.
AllTouched NewNodes::put(Model *model, const Committed &made)
{
	AllTouched added;
	for (auto &[node, parent] : nodes_) {
		node->id = made.id_of(node->id);
		node->parent = parent == 0 ? nullptr : model->find(made.id_of(parent));
		if (parent != 0 && node->parent == nullptr)
			continue;
		if (node->type != nullptr)
			node->type = model->intern(*node->type);
		added.push_back({node->kind, node->id, node->version ? node->version->id : 0});
		model->add(std::move(node));
	}
	return added;
}

namespace {

// How many groups there are from a node upwards.
int depth_of(const Node *node)
{
	int depth = 0;
	for (; node != nullptr && node->is_group(); node = node->parent)
		depth++;
	return depth;
}

// ---- Removing ----

// Adds a tree's nodes to `removed`, and the rows that take it out of the store: what hangs below goes first, a version with the
// last node that holds it. Copies that take the tree's place hold no such version, since what they are copies of stays.
void remove_tree(const std::vector<Node *> &tree, AllTouched *removed, Rows *rows)
{
	// Several nodes of one tree may hold a version: its row goes with the last of them, if nothing else holds it.
	std::unordered_map<const Version *, uint32_t> released;
	for (const Node *node : tree)
		removed->push_back({node->kind, node->id, node->version ? node->version->id : 0});
	for (auto at = tree.rbegin(); at != tree.rend(); ++at) {
		const Node *node = *at;
		if (!node->stored())
			continue;
		rows->push_back(Row::delete_node(node->id));
		const Version *version = node->version.get();
		if (version != nullptr && version->id != 0 && ++released[version] == version->holders)
			rows->push_back(Row::delete_version(version->id));
	}
}

void remove_if_there(Model *model, uint64_t id) REQUIRES(model->leader, model->lock)
{
	if (Node *node = model->find(id))
		model->remove(node);
}

} // namespace

rpy_error_t RemoveNode::prepare(Model &model, Rows *rows)
{
	removed.clear();
	Node *found = model.find(node);
	if (found == nullptr || (found->kind != kind && found->kind != other_kind))
		return RPY_ERROR_DELETED;
	if (!all && (!found->groups.empty() || !found->members.empty()))
		return RPY_ERROR_IN_USE;
	remove_tree(Model::tree(found), &removed, rows);
	return RPY_ERROR_NONE;
}

void RemoveNode::apply(Model &model, const Committed &)
{
	remove_if_there(&model, node);
}

rpy_error_t WithdrawGroup::prepare(Model &model, Rows *rows)
{
	removed.clear();
	Node *node = model.find(parent_kind, parent);
	if (node != nullptr && !name.empty())
		node = model.child(node, NodeKind::group, name);
	if (node == nullptr || node->kind != NodeKind::group)
		return RPY_ERROR_NOT_FOUND;
	// One group of somebody else's, however deep, keeps all of it: it can't be there without what it hangs below.
	const std::vector<Node *> tree = Model::tree(node);
	for (const Node *each : tree)
		if (each->change != change)
			return RPY_ERROR_IN_USE;
	remove_tree(tree, &removed, rows);
	return RPY_ERROR_NONE;
}

void WithdrawGroup::apply(Model &model, const Committed &)
{
	remove_if_there(&model, removed.front().node);
}

// ---- Adding ----

rpy_error_t AddNode::prepare(Model &model, Rows *rows)
{
	const bool is_stored = (flags & RPY_PG_FLAG_TEMPORARY) == 0;
	const Node *above = parent == 0 ? nullptr : model.find(parent_kind, parent);
	nodes_.clear();
	if (parent != 0 && above == nullptr)
		return RPY_ERROR_DELETED;
	if (model.child(above, kind, name) != nullptr)
		return RPY_ERROR_EXISTS;
	// After a restart it would hang below nothing.
	if (above != nullptr && is_stored && !above->stored())
		return RPY_ERROR_CONSTRAINT_VIOLATED;
	if (depth_of(above) >= depth_max)
		return RPY_ERROR_CONSTRAINT_VIOLATED;
	Node *node = nodes_.make(&model, kind, flags, name, parent);
	if (node->is_group()) {
		node->change = change;
		node->type = &type; // until it is in the tree
		node->version = model.no_properties();
	}
	nodes_.add_rows(rows);
	return RPY_ERROR_NONE;
}

void AddNode::apply(Model &model, const Committed &made)
{
	added = made.id_of(nodes_.first().id);
	(void) nodes_.put(&model, made);
}

// ---- Commits ----

namespace {

// The properties of a group with the entries applied to them: those that stay keep their order, new ones follow in that of
// the entries. All entries fit, or the commit is refused: a property to be created that is there, one to be changed or
// removed that isn't, and two entries of one name.
rpy_error_t merge(const std::string &before, Entries *entries, std::string *after)
{
	std::unordered_map<std::string_view, Entry *> by_name;
	for (Entry &entry : *entries) {
		entry.used = false;
		if (!by_name.emplace(entry.property.name, &entry).second)
			return RPY_ERROR_INVALID_ARGUMENT;
	}
	Writer merged;
	const size_t count_at = merged.reserve();
	uint32_t count = 0;
	Reader in(before);
	for (uint32_t left = in.u32(); left > 0; left--) {
		const Property property = take_property(&in);
		const auto found = by_name.find(property.name);
		if (found == by_name.end()) {
			put_property(&merged, property);
			count++;
			continue;
		}
		Entry *entry = found->second;
		entry->used = true;
		if (entry->change == Change::create)
			return RPY_ERROR_EXISTS;
		if (entry->change == Change::remove)
			continue;
		put_property(&merged, entry->property);
		count++;
	}
	for (const Entry &entry : *entries) {
		if (entry.used)
			continue;
		if (entry.change != Change::create)
			return RPY_ERROR_NOT_FOUND;
		put_property(&merged, entry.property);
		count++;
	}
	merged.patch(count_at, count);
	if (!merged.ok())
		return RPY_ERROR_NO_MEMORY;
	if (merged.size() > group_bytes_max)
		return RPY_ERROR_NO_RESOURCES;
	after->assign(merged.view());
	return RPY_ERROR_NONE;
}

} // namespace

rpy_error_t Commit::prepare(Model &model, Rows *rows)
{
	const Node *node = model.find(NodeKind::group, group);
	if (node == nullptr)
		return RPY_ERROR_DELETED;
	const Version &old = *node->version;
	before = after = old.id;
	// Somebody committed since the client read the group. It is told so, and may read again: nothing is overwritten unseen.
	nothing = old.id != base;
	if (nothing)
		return RPY_ERROR_NONE;
	version_ = std::make_shared<Version>();
	if (rpy_error_t refused = merge(old.properties, &entries, &version_->properties); refused != RPY_ERROR_NONE)
		return refused;
	version_->id = model.take_id(node->stored());
	// A temporary group's version is in memory alone.
	if (node->stored()) {
		rows->push_back(Row::put_version(version_->id, version_->properties));
		rows->push_back(Row::set_version(group, version_->id));
		if (old.id != 0 && old.holders == 1)
			rows->push_back(Row::delete_version(old.id));
	}
	return RPY_ERROR_NONE;
}

void Commit::apply(Model &model, const Committed &made)
{
	version_->id = after = made.id_of(version_->id);
	if (Node *node = model.find(NodeKind::group, group)) {
		model.set_version(node, std::move(version_));
		node->change = change;
	}
}

// ---- Snapshots ----

rpy_error_t TakeSnapshot::prepare(Model &model, Rows *rows)
{
	nodes_.clear();
	const Node *from = model.find(NodeKind::instance, instance);
	if (from == nullptr)
		return RPY_ERROR_DELETED;
	Node *old = model.child(from, NodeKind::snapshot, name);
	// A replaced snapshot is removed in the same commit: at no time are there two of its name, or none.
	if ((old != nullptr) != replace)
		return replace ? RPY_ERROR_DELETED : RPY_ERROR_EXISTS;
	replaced = old == nullptr ? 0 : old->id;
	AllTouched gone;
	if (old != nullptr)
		remove_tree(Model::tree(old), &gone, rows);
	const Node *made = nodes_.make(&model, NodeKind::snapshot, 0, name, instance);
	nodes_.copy_groups(&model, from, made->id, NodeKind::frozen);
	nodes_.add_rows(rows);
	return RPY_ERROR_NONE;
}

void TakeSnapshot::apply(Model &model, const Committed &made)
{
	taken = made.id_of(nodes_.first().id);
	if (replaced != 0)
		remove_if_there(&model, replaced);
	(void) nodes_.put(&model, made);
}

rpy_error_t RevertSnapshot::prepare(Model &model, Rows *rows)
{
	removed.clear();
	nodes_.clear();
	const Node *from = model.find(NodeKind::snapshot, snapshot);
	if (from == nullptr)
		return RPY_ERROR_DELETED;
	// Everything stored goes and is made again, with new ids: a client that holds a group of before finds it deleted, and can't
	// take what was reverted for what it read.
	Node *to = from->parent;
	instance = to->id;
	std::vector<Node *> gone;
	for (Node *each : to->groups)
		if (each->stored()) {
			const std::vector<Node *> tree = Model::tree(each);
			gone.insert(gone.end(), tree.begin(), tree.end());
		}
	remove_tree(gone, &removed, rows);
	for (const Node *frozen : from->groups) { // a temporary group keeps its name
		const Node *other = model.child(to, NodeKind::group, frozen->name);
		if (other != nullptr && !other->stored())
			return RPY_ERROR_CONFLICT;
	}
	nodes_.copy_groups(&model, from, instance, NodeKind::group);
	nodes_.add_rows(rows);
	return RPY_ERROR_NONE;
}

void RevertSnapshot::apply(Model &model, const Committed &made)
{
	for (const Touched &each : removed)
		remove_if_there(&model, each.node);
	added = nodes_.put(&model, made);
}

} // namespace repository
