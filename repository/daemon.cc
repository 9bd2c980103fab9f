#include "daemon.h"

namespace repository {
namespace {

using Versions = std::unordered_map<uint64_t, std::shared_ptr<const Version>>;

// Whether a node of its kind can hang below its parent (NULL: at the top).
bool fits_below(const Node &node, const Node *parent)
{
	if (parent == nullptr)
		return node.kind == NodeKind::service;
	switch (node.kind) {
	case NodeKind::instance:
		return parent->kind == NodeKind::service;
	case NodeKind::snapshot:
		return parent->kind == NodeKind::instance;
	case NodeKind::group:
	case NodeKind::frozen:
		return parent->group_kind() == node.kind;
	default:
		return false;
	}
}

// Adds a node that the store holds. False if it doesn't fit the tree.
bool load_node(Model *model, const Versions &versions, const Row &row) REQUIRES(model->leader, model->lock)
{
	auto node = std::make_unique<Node>();
	node->kind = static_cast<NodeKind>(row.kind);
	node->id = row.id;
	node->name = row.name;
	node->parent = row.parent == 0 ? nullptr : model->find(row.parent);
	if (!fits_below(*node, node->parent) || model->child(node->parent, node->kind, node->name) != nullptr)
		return false;
	if (node->is_group()) {
		const auto version = versions.find(row.version);
		if (!rpy::is_name(row.name) || !rpy::is_name(row.type) ||
		    (row.version != 0 && version == versions.end()))
			return false;
		node->type = model->intern(row.type);
		node->version = row.version == 0 ? model->no_properties() : version->second;
	}
	model->add(std::move(node));
	return true;
}

} // namespace

Failure Daemon::load()
{
	InRole leading(model.leader);
	WriteLock hold(model.lock);
	Versions versions;
	Store::Loader loader;
	loader.version = [&versions](uint64_t id, std::string_view properties) {
		auto version = std::make_shared<Version>();
		version->id = id;
		version->properties = properties;
		versions.emplace(id, std::move(version));
	};
	// It is called by the store's open(), which returns before the locks are given up.
	loader.node = [this, &versions](const Row &row)
			  NO_THREAD_SAFETY_ANALYSIS { return load_node(&model, versions, row); };
	uint64_t next = 0;
	Failure failure = store->open(loader, &next);
	if (!failure)
		model.set_next_id(next);
	return failure;
}

} // namespace repository
