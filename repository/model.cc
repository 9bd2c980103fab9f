// The tree, and the ways to find a node in it.
//
// A node is in all of these or in none: by its id (`nodes_`, which owns it), by parent, kind and name (`names_`), and in one list
// by id: `services_`, or the groups or members of its parent. add() and unlink() alone change them. Neither can be taken
// back: they run after the commit, where memory that runs out ends the daemon (updates.h), or while a start loads the store,
// which then fails as a whole.
//
// The lists are sorted by id, and no id comes again: so a listing can go on after the last id that it gave, whatever was added
// or removed meanwhile.
#include "model.h"

#include <algorithm>
#include <cerrno>
#include <sys/random.h>
#include <system_error>

namespace repository {
namespace {

char folded(char c)
{
	return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

// Without regard to case, since child() and children_without_case() look in the same index: what has the key is compared
// once more.
size_t name_key(const Node *parent, NodeKind kind, std::string_view name)
{
	uint64_t hash = 14695981039346656037U ^ (parent == nullptr ? 0 : parent->id * 31) ^ static_cast<uint64_t>(kind);
	for (char c : name)
		hash = (hash ^ static_cast<unsigned char>(folded(c))) * 1099511628211U;
	return hash;
}

void insert_by_id(std::vector<Node *> *list, Node *node)
{
	const auto at = std::upper_bound(
	    list->begin(), list->end(), node->id, [](uint64_t id, const Node *other) { return id < other->id; });
	list->insert(at, node);
}

void erase_by_id(std::vector<Node *> *list, const Node *node)
{
	const auto at = std::lower_bound(
	    list->begin(), list->end(), node->id, [](const Node *other, uint64_t id) { return other->id < id; });
	list->erase(at);
}

bool same_without_case(std::string_view one, std::string_view other)
{
	return std::equal(
	    one.begin(), one.end(), other.begin(), other.end(), [](char a, char b) { return folded(a) == folded(b); });
}

// Where the ids of what ends with the daemon begin: above all that a store has, at a random place of each daemon's own. So no
// later daemon uses one again, though none of them is written down.
uint64_t first_passing_id()
{
	uint64_t random = 0;
	if (getrandom(&random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random)))
		throw std::system_error(errno, std::generic_category(), "no random number");
	return (uint64_t{1} << 63) | (random >> 2);
}

} // namespace

Model::Model() : next_passing_(first_passing_id())
{
	Version none;
	uint32_t count = 0;
	none.properties.assign(reinterpret_cast<const char *>(&count), sizeof(count));
	empty_ = std::make_shared<const Version>(std::move(none));
	// By default readers come first, and readers that overlap would keep an update waiting for ever. The price: a thread that
	// has the lock for reading and takes it again waits for the writer, which waits for the thread.
	pthread_rwlockattr_t attributes;
	(void) pthread_rwlockattr_init(&attributes);
	(void) pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
	(void) pthread_rwlock_init(&lock.raw, &attributes);
	(void) pthread_rwlockattr_destroy(&attributes);
}

Node *Model::find(uint64_t id) const
{
	auto found = nodes_.find(id);
	return found == nodes_.end() ? nullptr : found->second.get();
}

Node *Model::find(NodeKind kind, uint64_t id) const
{
	Node *node = find(id);
	return node != nullptr && node->kind == kind ? node : nullptr;
}

Node *Model::child(const Node *parent, NodeKind kind, std::string_view name) const
{
	auto [at, end] = names_.equal_range(name_key(parent, kind, name));
	for (; at != end; ++at)
		if (at->second->parent == parent && at->second->kind == kind && at->second->name == name)
			return at->second;
	return nullptr;
}

std::vector<Node *> Model::children_without_case(const Node *parent, NodeKind kind, std::string_view name) const
{
	std::vector<Node *> found;
	auto [at, end] = names_.equal_range(name_key(parent, kind, name));
	for (; at != end; ++at)
		if (at->second->parent == parent && at->second->kind == kind &&
		    same_without_case(at->second->name, name))
			found.push_back(at->second);
	std::sort(found.begin(), found.end(), [](const Node *a, const Node *b) { return a->id < b->id; });
	return found;
}

void Model::add(std::unique_ptr<Node> owned)
{
	Node *node = owned.get();
	nodes_.emplace(node->id, std::move(owned));
	names_.emplace(name_key(node->parent, node->kind, node->name), node);
	if (node->parent == nullptr)
		insert_by_id(&services_, node);
	else
		insert_by_id(node->is_group() ? &node->parent->groups : &node->parent->members, node);
	groups_ += node->kind == NodeKind::group ? 1 : 0;
	// Only what is stored counts: the last holder's removal takes the version's row along (changes.cc).
	if (node->version && node->stored())
		node->version->holders++;
}

void Model::unlink(Node *node)
{
	auto [at, end] = names_.equal_range(name_key(node->parent, node->kind, node->name));
	for (; at != end; ++at)
		if (at->second == node) {
			names_.erase(at);
			break;
		}
	if (node->parent == nullptr)
		erase_by_id(&services_, node);
	else
		erase_by_id(node->is_group() ? &node->parent->groups : &node->parent->members, node);
	groups_ -= node->kind == NodeKind::group ? 1 : 0;
	if (node->version && node->stored())
		node->version->holders--;
}

// From the leaves up, since each node is taken out of its parent's list.
void Model::remove(Node *node)
{
	std::vector<Node *> all = tree(node);
	for (auto at = all.rbegin(); at != all.rend(); ++at) {
		uint64_t id = (*at)->id;
		unlink(*at);
		nodes_.erase(id);
	}
}

// The version before lives on with its snapshots, and with readers that share it.
void Model::set_version(Node *node, std::shared_ptr<const Version> version)
{
	if (node->stored()) {
		node->version->holders--;
		version->holders++;
	}
	node->version = std::move(version);
}

// Level by level: what comes later in the vector never lies above what comes earlier.
std::vector<Node *> Model::tree(Node *node)
{
	std::vector<Node *> all = {node};
	for (size_t i = 0; i < all.size(); i++) {
		Node *at = all[i];
		all.insert(all.end(), at->groups.begin(), at->groups.end());
		all.insert(all.end(), at->members.begin(), at->members.end());
	}
	return all;
}

} // namespace repository
