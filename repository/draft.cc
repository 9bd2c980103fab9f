// A version's row goes with the last stored node that holds it. It is held by one group at most, and by the frozen groups that
// were made of it: so no two commits of a batch, which are of different groups, give up the same one.
//
// Divisions: looking; steps; rows; taking effect.
#include "draft.h"

#include <algorithm>
#include <unordered_map>

namespace repository {

using namespace rpy;

void Draft::clear()
{
	new_.clear();
	changed_.clear();
	removed_.clear();
	roots_.clear();
	gone_.clear();
}

// ---- Looking ----

// A batch has a thousand steps at most, and nothing else looks here for what it made.
Draft::New *Draft::find_new(uint64_t id)
{
	const auto found =
	    std::find_if(new_.begin(), new_.end(), [id](const New &each) { return each.node->id == id; });
	return found == new_.end() ? nullptr : &*found;
}

const Node *Draft::find(const Model &model, uint64_t id)
{
	if (const New *made = find_new(id))
		return made->node.get();
	return removes(id) ? nullptr : model.find(id);
}

bool Draft::has_child(const Model &model, const NewNode &what)
{
	for (const New &each : new_)
		if (each.parent == what.parent && each.node->kind == what.kind && each.node->name == what.name)
			return true;
	const Node *parent = what.parent == 0 ? nullptr : model.find(what.parent);
	if (what.parent != 0 && parent == nullptr) // which is new itself
		return false;
	const Node *child = model.child(parent, what.kind, what.name);
	return child != nullptr && !removes(child->id);
}

bool Draft::has_children(const Node &node) const
{
	const auto stays = [this](const Node *child) { return !removes(child->id); };
	return std::any_of(node.groups.begin(), node.groups.end(), stays) ||
	       std::any_of(node.members.begin(), node.members.end(), stays) ||
	       std::any_of(new_.begin(), new_.end(), [&](const New &each) { return each.parent == node.id; });
}

// How many groups there are from a node upwards.
int Draft::depth_of(const Model &model, uint64_t id)
{
	int depth = 0;
	for (const New *made = find_new(id); made != nullptr; made = find_new(id)) {
		depth += made->node->is_group() ? 1 : 0;
		id = made->parent;
	}
	for (const Node *node = model.find(id); node != nullptr && node->is_group(); node = node->parent)
		depth++;
	return depth;
}

const Version *Draft::version_of(const Model &model, uint64_t group)
{
	if (const New *made = find_new(group))
		return made->node->version.get();
	for (const Changed &each : changed_)
		if (each.group == group)
			return each.after.get();
	const Node *node = removes(group) ? nullptr : model.find(NodeKind::group, group);
	return node == nullptr ? nullptr : node->version.get();
}

// ---- Steps ----

Node *Draft::make(Model *model, NodeKind kind, uint32_t flags, std::string_view name, uint64_t parent)
{
	auto node = std::make_unique<Node>();
	node->kind = kind;
	node->flags = flags;
	node->id = model->take_id(node->stored());
	node->name = name;
	return new_.emplace_back(New{std::move(node), parent, {}, {}}).node.get();
}

uint64_t Draft::put(Model *model, const NewNode &what)
{
	Node *node = make(model, what.kind, what.flags, what.name, what.parent);
	if (node->is_group()) {
		new_.back().type = what.type;
		node->change = what.change;
		node->version = model->no_properties();
	}
	return node->id;
}

rpy_error_t Draft::add(Model *model, const NewNode &what, uint64_t *id)
{
	const bool is_stored = (what.flags & RPY_PG_FLAG_TEMPORARY) == 0;
	const Node *above = what.parent == 0 ? nullptr : find(*model, what.parent);
	if (what.parent != 0 && above == nullptr)
		return RPY_ERROR_DELETED;
	if (has_child(*model, what))
		return RPY_ERROR_EXISTS;
	if (above != nullptr && is_stored && !above->stored())
		return RPY_ERROR_CONSTRAINT_VIOLATED;
	if (depth_of(*model, what.parent) >= depth_max)
		return RPY_ERROR_CONSTRAINT_VIOLATED;
	*id = put(model, what);
	return RPY_ERROR_NONE;
}

void Draft::copy_groups(Model *model, const Node *from, uint64_t to, NodeKind kind)
{
	std::vector<std::pair<const Node *, uint64_t>> pairs = {{from, to}};
	for (size_t i = 0; i < pairs.size(); i++) {
		const auto [source, target] = pairs[i];
		for (const Node *group : source->groups) {
			if (!group->stored())
				continue;
			Node *copy = make(model, kind, group->flags, group->name, target);
			new_.back().type = *group->type; // which lives as long as the model
			copy->version = group->version;
			pairs.emplace_back(group, copy->id);
		}
	}
}

rpy_error_t Draft::remove(Node *node, bool all)
{
	if (removes(node->id))
		return RPY_ERROR_DELETED;
	if (!all && has_children(*node))
		return RPY_ERROR_IN_USE;
	const std::vector<Node *> tree = Model::tree(node);
	for (auto at = tree.rbegin(); at != tree.rend(); ++at)
		if (gone_.insert((*at)->id).second)
			removed_.push_back({(*at)->id, (*at)->stored(), (*at)->version});
	roots_.push_back(node->id);
	std::erase_if(changed_, [this](const Changed &each) { return removes(each.group); });
	// Parents come first, so that one pass finds whole trees of new nodes.
	std::erase_if(new_, [this](const New &each) {
		const bool goes = removes(each.parent);
		if (goes)
			gone_.insert(each.node->id);
		return goes;
	});
	return RPY_ERROR_NONE;
}

namespace {

// The properties of a group with the entries applied to them.
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

rpy_error_t Draft::commit(Model *model, uint64_t group, Entries *entries, uint64_t change)
{
	const Version *before = version_of(*model, group);
	if (before == nullptr)
		return RPY_ERROR_DELETED;
	auto after = std::make_shared<Version>();
	if (rpy_error_t refused = merge(before->properties, entries, &after->properties); refused != RPY_ERROR_NONE)
		return refused;
	if (New *made = find_new(group)) {
		after->id = model->take_id(made->node->stored());
		made->node->version = after;
		made->version = std::move(after);
		return RPY_ERROR_NONE;
	}
	const Node *node = model->find(group);
	after->id = model->take_id(node->stored());
	for (Changed &each : changed_)
		if (each.group == group) {
			each.after = std::move(after);
			return RPY_ERROR_NONE;
		}
	changed_.push_back({group, node->version, std::move(after), change, node->stored()});
	return RPY_ERROR_NONE;
}

// ---- Rows ----

// Rows stand in an order in which each finds what it needs: a parent and a version before the node that names them; going, what
// hangs below before what it hangs from, and a node before its version; and what gives up a name before what takes it, since
// the store has an index of names that is never wrong, not even within a transaction. They refer to the names in the nodes,
// which stay where they are until apply().
void Draft::add_rows(Rows *rows) const
{
	std::unordered_map<const Version *, uint32_t> left; // how many nodes hold it in the end
	const auto holders = [&left](const Version *version) -> uint32_t & {
		return left.try_emplace(version, version->holders).first->second;
	};
	for (const Removed &each : removed_) {
		if (!each.stored)
			continue;
		rows->push_back(Row::delete_node(each.node));
		if (each.version && each.version->id != 0)
			holders(each.version.get())--;
	}
	for (const Changed &each : changed_) {
		if (!each.stored)
			continue;
		rows->push_back(Row::put_version(each.after->id, each.after->properties));
		rows->push_back(Row::set_version(each.group, each.after->id));
		if (each.before->id != 0)
			holders(each.before.get())--;
	}
	for (const auto &[node, parent, type, version] : new_) {
		if (!node->stored())
			continue;
		if (version)
			rows->push_back(Row::put_version(version->id, version->properties));
		else if (const auto held = left.find(node->version.get()); held != left.end())
			held->second++;
		rows->push_back({Row::What::put_node, node->id, static_cast<uint32_t>(node->kind), parent,
		    node->version ? node->version->id : 0, node->name, type, {}});
	}
	for (const auto &[version, count] : left)
		if (count == 0)
			rows->push_back(Row::delete_version(version->id));
}

// ---- Taking effect ----

// A parent may have gone since the rows were prepared, if others change the store as well. What should hang below it is left
// out, and then what should hang below that, since it finds no parent either.
void Draft::apply(Model *model, const Committed &made)
{
	for (const uint64_t root : roots_)
		if (Node *node = model->find(root))
			model->remove(node);
	for (Changed &each : changed_) {
		each.after->id = made.id_of(each.after->id);
		if (Node *node = model->find(each.group)) {
			model->set_version(node, each.after);
			node->change = each.change;
		}
	}
	for (auto &[node, parent, type, version] : new_) {
		node->id = made.id_of(node->id);
		if (version)
			version->id = made.id_of(version->id);
		node->parent = parent == 0 ? nullptr : model->find(made.id_of(parent));
		if (parent != 0 && node->parent == nullptr)
			continue;
		if (node->is_group())
			node->type = model->intern(type);
		model->add(std::move(node));
	}
}

} // namespace repository
