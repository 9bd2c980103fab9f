// Divisions: drafted updates; nodes; commits; batches; snapshots.
#include "changes.h"

#include <algorithm>

namespace repository {

using namespace rpy;

// ---- Drafted updates ----

rpy_error_t Drafted::prepare(Model &model, Rows *rows)
{
	draft.clear();
	const rpy_error_t refused = decide(model);
	if (refused == RPY_ERROR_NONE && !nothing)
		draft.add_rows(rows);
	return refused;
}

void Drafted::apply(Model &model, const Committed &made)
{
	draft.apply(&model, made);
}

// ---- Nodes ----

rpy_error_t AddNode::decide(Model &model)
{
	if (node.parent != 0 && model.find(parent_kind, node.parent) == nullptr)
		return RPY_ERROR_DELETED;
	return draft.add(&model, node, &added);
}

void AddNode::apply(Model &model, const Committed &made)
{
	added = made.id_of(added);
	draft.apply(&model, made);
}

rpy_error_t RemoveNode::decide(Model &model)
{
	Node *found = model.find(node);
	if (found == nullptr || (found->kind != kind && found->kind != other_kind))
		return RPY_ERROR_DELETED;
	return draft.remove(found, all);
}

rpy_error_t WithdrawGroup::decide(Model &model)
{
	Node *node = model.find(parent_kind, parent);
	if (node != nullptr && !name.empty())
		node = model.child(node, NodeKind::group, name);
	if (node == nullptr || node->kind != NodeKind::group)
		return RPY_ERROR_NOT_FOUND;
	for (const Node *each : Model::tree(node))
		if (each->change != change)
			return RPY_ERROR_IN_USE;
	return draft.remove(node, true);
}

// ---- Commits ----

rpy_error_t Commit::decide(Model &model)
{
	const Node *node = model.find(NodeKind::group, group);
	if (node == nullptr)
		return RPY_ERROR_DELETED;
	nothing = node->version->id != base;
	return nothing ? RPY_ERROR_NONE : draft.commit(&model, group, &entries, change);
}

// ---- Batches ----

namespace {

bool holds(const Model &model, const Batch::Condition &condition) REQUIRES_SHARED(model.lock)
{
	const Node *node = model.find(condition.kind, condition.id);
	if (condition.what == Expect::version)
		return node != nullptr && node->version->id == condition.version;
	return node == nullptr || model.child(node, node->group_kind(), condition.name) == nullptr;
}

} // namespace

rpy_error_t Batch::carry_out(Model &model, Step *step, std::vector<uint64_t> *added)
{
	if (step->kind == NodeKind::snapshot || step->kind == NodeKind::frozen)
		return RPY_ERROR_CONSTRAINT_VIOLATED;
	const bool of_step = step->kind == NodeKind{};
	Node *node = of_step ? nullptr : model.find(step->kind, step->id);
	if (!of_step && (node == nullptr || draft.removes(step->id)))
		return RPY_ERROR_DELETED;
	const uint64_t id = of_step ? (*added)[step->id] : step->id;
	switch (step->what) {
	case rpy::Step::add:
		return draft.add(
		    &model, {NodeKind::group, step->name, id, step->type, step->flags, change}, &added->back());
	case rpy::Step::commit:
		nothing = node != nullptr && node->version->id != step->base;
		return nothing ? RPY_ERROR_NONE : draft.commit(&model, id, &step->entries, change);
	default:
		return draft.remove(node, step->all);
	}
}

rpy_error_t Batch::decide(Model &model)
{
	failed = none;
	const auto wrong = std::find_if_not(conditions.begin(), conditions.end(),
	    [&model](const Condition &each) NO_THREAD_SAFETY_ANALYSIS { return holds(model, each); });
	nothing = wrong != conditions.end();
	if (nothing) {
		failed = static_cast<uint32_t>(wrong - conditions.begin());
		return RPY_ERROR_NONE;
	}
	std::vector<uint64_t> added;
	for (Step &step : steps) {
		added.push_back(0);
		const rpy_error_t refused = carry_out(model, &step, &added);
		if (refused != RPY_ERROR_NONE || nothing) {
			failed = static_cast<uint32_t>(conditions.size() + added.size() - 1);
			return refused;
		}
	}
	return RPY_ERROR_NONE;
}

// ---- Snapshots ----

rpy_error_t TakeSnapshot::decide(Model &model)
{
	const Node *from = model.find(NodeKind::instance, instance);
	if (from == nullptr)
		return RPY_ERROR_DELETED;
	Node *old = model.child(from, NodeKind::snapshot, name);
	if ((old != nullptr) != replace)
		return replace ? RPY_ERROR_DELETED : RPY_ERROR_EXISTS;
	if (old != nullptr)
		(void) draft.remove(old, true);
	taken = draft.put(&model, {NodeKind::snapshot, name, instance});
	draft.copy_groups(&model, from, taken, NodeKind::frozen);
	return RPY_ERROR_NONE;
}

void TakeSnapshot::apply(Model &model, const Committed &made)
{
	taken = made.id_of(taken);
	draft.apply(&model, made);
}

rpy_error_t RevertSnapshot::decide(Model &model)
{
	const Node *from = model.find(NodeKind::snapshot, snapshot);
	if (from == nullptr)
		return RPY_ERROR_DELETED;
	const Node *to = from->parent;
	for (Node *each : to->groups)
		if (each->stored())
			(void) draft.remove(each, true);
	for (const Node *frozen : from->groups) { // a temporary group keeps its name
		const Node *other = model.child(to, NodeKind::group, frozen->name);
		if (other != nullptr && !other->stored())
			return RPY_ERROR_CONFLICT;
	}
	draft.copy_groups(&model, from, to->id, NodeKind::group);
	return RPY_ERROR_NONE;
}

} // namespace repository
