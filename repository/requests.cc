// The requests, as a table: what each takes apart, looks up and answers, and who may send it.
// Divisions: loading; reads; listings; changes of the tree; commits; snapshots; what an operator asks for; the table.
#include "requests.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <unistd.h>

#include <meridon/hatch.h>

namespace repository {
namespace {

using namespace rpy;
using namespace std::chrono_literals;
using Handler = rpy_error_t(Daemon *daemon, Reader *in, Writer *out);

bool is_parent(const Node *node, uint32_t kind)
{
	return node != nullptr && static_cast<uint32_t>(node->kind) == kind;
}

rpy::Group wire_group(const Node *node)
{
	return {node->id, node->version->id, node->flags, node->name, *node->type, node->version->properties};
}

// The kind of the groups that hang below a node.
Parent kind_below(const Node *node)
{
	return node->kind == Parent::snapshot || node->kind == Parent::frozen ? Parent::frozen : Parent::group;
}

Row node_row(const Node &node)
{
	return {Row::What::put_node, node.id, static_cast<uint32_t>(node.kind),
	    node.parent == nullptr ? 0 : node.parent->id, node.version ? node.version->id : 0, node.name,
	    node.type == nullptr ? std::string_view() : *node.type, {}};
}

std::unique_ptr<Node> new_node(Daemon *daemon, Parent kind, Node *parent, std::string_view name)
{
	auto node = std::make_unique<Node>();
	node->kind = kind;
	node->id = daemon->model.take_id(node->stored());
	node->parent = parent;
	node->name = name;
	return node;
}

// ---- Reads ----

rpy_error_t get_status(Daemon *daemon, Reader *in, Writer *out)
{
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	out->u64(static_cast<uint64_t>(getpid()));
	out->u32(store_format);
	out->u32(daemon->store->writable() ? 1 : 0);
	out->text(daemon->file);
	{
		ReadLock hold(daemon->model.lock);
		out->u64(daemon->model.groups());
	}
	StoreFile *file = daemon->store->file();
	out->u64(file == nullptr ? 0 : file->bytes());
	return RPY_ERROR_NONE;
}

rpy_error_t decode(Daemon *daemon, Reader *in, Writer *out)
{
	std::string_view service_name = in->text(), instance_name = in->text();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *service = daemon->model.child(nullptr, Parent::service, service_name);
	if (service == nullptr)
		return RPY_ERROR_NOT_FOUND;
	const Node *instance = nullptr;
	if (!instance_name.empty()) {
		instance = daemon->model.child(service, Parent::instance, instance_name);
		if (instance == nullptr)
			return RPY_ERROR_NOT_FOUND;
	}
	out->u64(service->id);
	out->u64(instance == nullptr ? 0 : instance->id);
	return RPY_ERROR_NONE;
}

// A group as a reader found it. Versions never change, so that the reply is filled without the lock.
struct Found {
	uint64_t id = 0;
	uint32_t flags = 0;
	std::string name;
	const std::string *type = nullptr; // kept for good
	std::shared_ptr<const Version> version;
};

Found found_in(const Node *node)
{
	return {node->id, node->flags, node->name, node->type, node->version};
}

rpy::Group wire_group(const Found &found)
{
	return {found.id, found.version->id, found.flags, found.name, *found.type, found.version->properties};
}

// Whether the caller may have so much of the daemon's memory; it counts as the caller's then. Where no hatch called, there
// is no caller.
bool may_use(size_t bytes)
{
	return hatch_charge(bytes) == 0 || errno != ENOMEM;
}

// Makes room for so many bytes of the reply: beyond what lies on the stack it is the hatch's memory, which counts as the
// caller's. False if that may not have more.
bool make_room(Writer *out, size_t more)
{
	const size_t whole = out->size() + more;
	if (whole <= out->room())
		return true;
	char *memory = static_cast<char *>(hatch_reply_memory(whole));
	if (memory == nullptr)
		return errno == EINVAL && out->reserve(more); // no hatch called: the writer's own memory does
	out->move_to(memory, whole);
	return true;
}

rpy_error_t find_named(Daemon *daemon, Reader *in, Found *found)
{
	uint32_t kind = in->u32();
	uint64_t id = in->u64();
	std::string_view name = in->text();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *parent = daemon->model.find(id);
	if (!is_parent(parent, kind))
		return RPY_ERROR_DELETED;
	const Node *group = daemon->model.child(parent, kind_below(parent), name);
	if (group == nullptr)
		return RPY_ERROR_NOT_FOUND;
	*found = found_in(group);
	return RPY_ERROR_NONE;
}

rpy_error_t find_by_id(Daemon *daemon, Reader *in, Found *found)
{
	uint64_t id = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *group = daemon->model.find(Parent::group, id);
	if (group == nullptr)
		return RPY_ERROR_DELETED;
	*found = found_in(group);
	return RPY_ERROR_NONE;
}

using Find = rpy_error_t(Daemon *daemon, Reader *in, Found *found);

template <Find *find>
rpy_error_t give_group(Daemon *daemon, Reader *in, Writer *out)
{
	Found found;
	if (rpy_error_t error = find(daemon, in, &found); error != RPY_ERROR_NONE)
		return error;
	const rpy::Group group = wire_group(found);
	if (!make_room(out, size_of(group)))
		return RPY_ERROR_NO_MEMORY;
	put_group(out, group);
	return RPY_ERROR_NONE;
}

// Several reads of one client's, each with a reply of its own: one that fails says nothing about the others. Those that no
// page has room for are left to calls of their own.
rpy_error_t together(Daemon *daemon, Reader *in, Writer *out)
{
	struct One {
		rpy_error_t error;
		Found found;
	};
	constexpr size_t head = 3 * sizeof(uint32_t); // its length, and what each reply begins with
	std::vector<One> all;
	size_t bytes = 0;
	bool full = false;
	while (in->ok() && in->left() > 0 && !full) {
		Reader request(in->text());
		const bool speaks = request.u32() == magic;
		const auto op = static_cast<Op>(request.u32());
		if (!request.ok() || !speaks || (op != Op::get_group && op != Op::read_group))
			return RPY_ERROR_INVALID_ARGUMENT;
		One &one = all.emplace_back();
		one.error = (op == Op::get_group ? find_named : find_by_id)(daemon, &request, &one.found);
		bytes += head + (one.error == RPY_ERROR_NONE ? size_of(wire_group(one.found)) : 0);
		full = bytes > page_bytes || all.size() == page_most;
	}
	if (!in->ok())
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!make_room(out, bytes))
		return RPY_ERROR_NO_MEMORY;
	for (const One &one : all) {
		const size_t length_at = out->hole(), begin = out->size();
		out->u32(magic);
		out->u32(static_cast<uint32_t>(one.error));
		if (one.error == RPY_ERROR_NONE)
			put_group(out, wire_group(one.found));
		out->fill(length_at, static_cast<uint32_t>(out->size() - begin));
	}
	return RPY_ERROR_NONE;
}

rpy_error_t get_snapshot(Daemon *daemon, Reader *in, Writer *out)
{
	uint64_t id = in->u64();
	std::string_view name = in->text();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *instance = daemon->model.find(Parent::instance, id);
	if (instance == nullptr)
		return RPY_ERROR_DELETED;
	const Node *snapshot = daemon->model.child(instance, Parent::snapshot, name);
	if (snapshot == nullptr)
		return RPY_ERROR_NOT_FOUND;
	out->u64(snapshot->id);
	return RPY_ERROR_NONE;
}

// ---- Listings ----

std::vector<Node *>::const_iterator behind(const std::vector<Node *> &list, uint64_t after)
{
	return std::upper_bound(
	    list.begin(), list.end(), after, [](uint64_t id, const Node *other) { return id < other->id; });
}

rpy_error_t put_names(const std::vector<Node *> &list, uint64_t after, Writer *out)
{
	size_t more_at = out->hole(), count_at = out->hole();
	uint32_t count = 0;
	auto at = behind(list, after);
	for (; at != list.end() && count < page_most; ++at, count++) {
		out->u64((*at)->id);
		out->text((*at)->name);
	}
	out->fill(more_at, at == list.end() ? 0 : 1);
	out->fill(count_at, count);
	return RPY_ERROR_NONE;
}

rpy_error_t list_services(Daemon *daemon, Reader *in, Writer *out)
{
	uint64_t after = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	return put_names(daemon->model.services(), after, out);
}

rpy_error_t list_members(Daemon *daemon, Parent kind, Reader *in, Writer *out)
{
	uint64_t id = in->u64(), after = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *node = daemon->model.find(kind, id);
	return node == nullptr ? RPY_ERROR_DELETED : put_names(node->members, after, out);
}

rpy_error_t list_instances(Daemon *daemon, Reader *in, Writer *out)
{
	return list_members(daemon, Parent::service, in, out);
}

rpy_error_t list_snapshots(Daemon *daemon, Reader *in, Writer *out)
{
	return list_members(daemon, Parent::instance, in, out);
}

bool fits(const Node *group, Filter filter, std::string_view text)
{
	switch (filter) {
	case Filter::type:
		return *group->type == text;
	case Filter::type_prefix:
		return group->type->compare(0, text.size(), text) == 0;
	default:
		return true; // names were looked up
	}
}

// For how long a listing keeps updates waiting.
class Piece {
public:
	// Counts a group. Most listings are too short for a look at the clock.
	bool is_over()
	{
		if (++looked_ > groups_max)
			return true;
		if (looked_ % between_looks != 0)
			return false;
		const Clock::time_point now = Clock::now();
		if (looked_ == between_looks)
			end_ = now + time_max;
		return now >= end_;
	}

private:
	using Clock = std::chrono::steady_clock;
	static constexpr size_t groups_max = 4096, between_looks = 32;
	static constexpr auto time_max = 1ms;

	size_t looked_ = 0;
	Clock::time_point end_;
};

// So much of a page is written under the lock, if its groups aren't large: to copy what is small takes no longer than to
// share it. It is what a thread keeps for replies.
constexpr size_t direct_bytes = size_t{1} << 20;
constexpr size_t large_group = size_t{64} << 10;

// A listing of groups, and one page of it: what was written, and behind that what is shared, to be written without the lock.
struct Listing {
	uint32_t kind = 0;
	uint64_t id = 0; // of the parent
	Filter filter = Filter::all;
	std::string_view text;
	uint64_t after = 0; // what was looked at

	uint32_t count = 0;
	size_t bytes = 0;
	std::vector<Found> shared;
	size_t shared_bytes = 0;
	bool shares = false;     // from here on
	bool wants_room = false; // before it can go on
	bool more = false;       // a group fits that the page has no room for

	bool is_full() const
	{
		return count >= page_most || (count >= page_least && bytes >= page_bytes) || bytes >= page_bytes_most;
	}

	// Takes a group into the page. False: it has to wait.
	bool take(const Node *group, Writer *out)
	{
		more = is_full();
		if (more)
			return false;
		const rpy::Group wire = wire_group(group);
		const size_t size = size_of(wire);
		shares = shares || size > large_group;
		wants_room = !shares && size > out->room() - out->size();
		if (wants_room)
			return false;
		if (shares) {
			shared.push_back(found_in(group));
			shared_bytes += size;
		} else {
			put_group(out, wire);
		}
		count++;
		bytes += size;
		return true;
	}
	void give_back_last()
	{
		shared_bytes -= size_of(wire_group(shared.back()));
		shared.pop_back();
		count--;
		more = true;
	}
};

// Goes on with a listing for a piece, under the lock. *done: nothing is left, or the page is full.
rpy_error_t list_piece(Daemon *daemon, Listing *listing, Writer *out, bool *done)
{
	ReadLock hold(daemon->model.lock);
	const Node *parent = daemon->model.find(listing->id); // it may have gone since the last piece
	if (!is_parent(parent, listing->kind))
		return RPY_ERROR_DELETED;
	std::vector<Node *> named;
	if (listing->filter == Filter::name_without_case)
		named = daemon->model.children_without_case(parent, kind_below(parent), listing->text);
	const std::vector<Node *> &list = listing->filter == Filter::name_without_case ? named : parent->groups;
	Piece piece;
	for (auto at = behind(list, listing->after); at != list.end() && !listing->more; ++at) {
		if (piece.is_over())
			return RPY_ERROR_NONE;
		if (fits(*at, listing->filter, listing->text) && !listing->take(*at, out) && listing->wants_room)
			return RPY_ERROR_NONE;
		listing->after = (*at)->id;
	}
	*done = true;
	return RPY_ERROR_NONE;
}

// Writes what is shared. A reader that may not have so much gets a shorter page.
bool put_shared(Listing *listing, Writer *out)
{
	if (listing->shared.empty())
		return true;
	if (!out->own()) // where it lies is taken back for more
		return false;
	while (!make_room(out, listing->shared_bytes)) {
		if (listing->count <= 1)
			return false;
		for (size_t half = listing->shared.size() / 2; listing->shared.size() > half;)
			listing->give_back_last();
	}
	for (const Found &found : listing->shared)
		put_group(out, wire_group(found));
	return true;
}

rpy_error_t list_groups(Daemon *daemon, Reader *in, Writer *out)
{
	Listing listing;
	listing.kind = in->u32();
	listing.id = in->u64();
	uint32_t filter = in->u32();
	listing.text = in->text();
	listing.after = in->u64();
	if (!in->done() || filter > static_cast<uint32_t>(Filter::type_prefix))
		return RPY_ERROR_INVALID_ARGUMENT;
	listing.filter = static_cast<Filter>(filter);
	const size_t more_at = out->hole(), count_at = out->hole();
	for (bool done = false; !done;) {
		if (rpy_error_t error = list_piece(daemon, &listing, out, &done); error != RPY_ERROR_NONE)
			return error;
		if (listing.wants_room)
			listing.shares = out->room() >= direct_bytes || !make_room(out, direct_bytes - out->size());
	}
	if (!put_shared(&listing, out))
		return RPY_ERROR_NO_MEMORY;
	out->fill(more_at, listing.more ? 1 : 0);
	out->fill(count_at, listing.count);
	return RPY_ERROR_NONE;
}

// ---- Changes of the tree ----

// How many groups there are from a node upwards.
int depth_of(const Node *node)
{
	int depth = 0;
	for (; node != nullptr && node->is_group(); node = node->parent)
		depth++;
	return depth;
}

// Adds one node, unless there is one of its name.
rpy_error_t add_node(Daemon *daemon, std::unique_ptr<Node> node, Parent parent_kind, uint64_t parent_id, Writer *out)
{
	Update update;
	Node *added = node.get();
	Model &model = daemon->model;
	update.prepare = [&](Rows *rows) {
		if (parent_id != 0 && (added->parent = model.find(parent_kind, parent_id)) == nullptr)
			return RPY_ERROR_DELETED;
		if (model.child(added->parent, added->kind, added->name) != nullptr)
			return RPY_ERROR_EXISTS;
		if (added->parent != nullptr && added->stored() && !added->parent->stored())
			return RPY_ERROR_CONSTRAINT_VIOLATED;
		if (depth_of(added->parent) >= depth_max)
			return RPY_ERROR_CONSTRAINT_VIOLATED;
		added->id = model.take_id(added->stored());
		if (added->stored())
			rows->push_back(node_row(*added));
		return RPY_ERROR_NONE;
	};
	update.apply = [&] {
		if (added->is_group()) {                          // while nothing can change it
			added->type = model.intern(*added->type); // which lived as long as the request until now
			put_group(out, wire_group(added));
		} else {
			out->u64(added->id);
		}
		model.add(std::move(node));
	};
	return daemon->updates.run(&update);
}

rpy_error_t add_service(Daemon *daemon, Reader *in, Writer *out)
{
	std::string_view name = in->text();
	if (!in->done() || !is_service_name(name))
		return RPY_ERROR_INVALID_ARGUMENT;
	auto node = std::make_unique<Node>();
	node->name = name;
	return add_node(daemon, std::move(node), Parent::service, 0, out);
}

rpy_error_t add_instance(Daemon *daemon, Reader *in, Writer *out)
{
	uint64_t service = in->u64();
	std::string_view name = in->text();
	if (!in->done() || !is_name(name) || service == 0)
		return RPY_ERROR_INVALID_ARGUMENT;
	auto node = std::make_unique<Node>();
	node->kind = Parent::instance;
	node->name = name;
	return add_node(daemon, std::move(node), Parent::service, service, out);
}

// Older clients end their requests before it.
uint64_t take_change(Reader *in)
{
	return in->left() == 0 ? 0 : in->u64();
}

rpy_error_t add_group(Daemon *daemon, Reader *in, Writer *out)
{
	uint32_t kind = in->u32();
	uint64_t id = in->u64();
	std::string_view name = in->text(), type = in->text();
	uint32_t flags = in->u32();
	const uint64_t change = take_change(in);
	if (!in->done() || !is_name(name) || !is_name(type) || id == 0 || (flags & ~RPY_PG_FLAG_TEMPORARY) != 0)
		return RPY_ERROR_INVALID_ARGUMENT;
	auto parent_kind = static_cast<Parent>(kind);
	if (parent_kind == Parent::snapshot || parent_kind == Parent::frozen)
		return RPY_ERROR_CONSTRAINT_VIOLATED;
	auto node = std::make_unique<Node>();
	node->kind = Parent::group;
	node->flags = flags;
	node->change = change;
	node->name = name;
	node->version = daemon->model.no_properties();
	const std::string its_type(type);
	node->type = &its_type;
	return add_node(daemon, std::move(node), parent_kind, id, out);
}

// The rows that take a tree out of the store: what hangs below goes first, versions once nothing holds them.
void delete_rows(const std::vector<Node *> &tree, Rows *rows)
{
	std::unordered_map<const Version *, uint32_t> released;
	for (auto at = tree.rbegin(); at != tree.rend(); ++at) {
		const Node *node = *at;
		if (!node->stored())
			continue;
		rows->push_back({Row::What::delete_node, node->id});
		const Version *version = node->version.get();
		if (version != nullptr && version->id != 0 && ++released[version] == version->nodes)
			rows->push_back({Row::What::delete_version, version->id});
	}
}

rpy_error_t delete_node(Daemon *daemon, uint64_t id, Parent kind, Parent other_kind, bool all)
{
	Update update;
	Node *node = nullptr;
	update.prepare = [&](Rows *rows) {
		node = daemon->model.find(id);
		if (node == nullptr || (node->kind != kind && node->kind != other_kind))
			return RPY_ERROR_DELETED;
		if (!all && (!node->groups.empty() || !node->members.empty()))
			return RPY_ERROR_IN_USE;
		delete_rows(Model::tree(node), rows);
		return RPY_ERROR_NONE;
	};
	update.apply = [&] { daemon->model.remove(node); };
	return daemon->updates.run(&update);
}

rpy_error_t delete_entity(Daemon *daemon, Reader *in, Writer *)
{
	uint64_t id = in->u64();
	uint32_t all = in->u32();
	return in->done() ? delete_node(daemon, id, Parent::service, Parent::instance, all != 0)
			  : RPY_ERROR_INVALID_ARGUMENT;
}

rpy_error_t delete_group(Daemon *daemon, Reader *in, Writer *)
{
	uint64_t id = in->u64();
	return in->done() ? delete_node(daemon, id, Parent::group, Parent::group, true) : RPY_ERROR_INVALID_ARGUMENT;
}

// For a client that made or changed a group and can't go on: what others have made or put there is theirs.
rpy_error_t withdraw_group(Daemon *daemon, Reader *in, Writer *)
{
	const auto kind = static_cast<Parent>(in->u32());
	const uint64_t id = in->u64();
	const std::string_view name = in->text();
	const uint64_t change = in->u64();
	if (!in->done() || id == 0 || change == 0)
		return RPY_ERROR_INVALID_ARGUMENT;
	Update update;
	Node *node = nullptr;
	update.prepare = [&](Rows *rows) {
		node = daemon->model.find(kind, id);
		if (node != nullptr && !name.empty())
			node = daemon->model.child(node, Parent::group, name);
		if (node == nullptr || node->kind != Parent::group)
			return RPY_ERROR_NOT_FOUND;
		const std::vector<Node *> tree = Model::tree(node);
		for (const Node *each : tree)
			if (each->change != change)
				return RPY_ERROR_IN_USE;
		delete_rows(tree, rows);
		return RPY_ERROR_NONE;
	};
	update.apply = [&] { daemon->model.remove(node); };
	return daemon->updates.run(&update);
}

rpy_error_t delete_snapshot(Daemon *daemon, Reader *in, Writer *)
{
	uint64_t id = in->u64();
	return in->done() ? delete_node(daemon, id, Parent::snapshot, Parent::snapshot, true)
			  : RPY_ERROR_INVALID_ARGUMENT;
}

// ---- Commits ----

struct Entry {
	Change change;
	Property property;
	bool used = false;
};
using Entries = std::vector<Entry>;

constexpr size_t entry_least = 5 * sizeof(uint32_t) + 1; // bytes: four numbers and lengths, and a name of one

rpy_error_t take_entries(Reader *in, Entries *entries)
{
	const uint32_t count = in->u32();
	if (!in->ok() || count > in->left() / entry_least)
		return RPY_ERROR_INVALID_ARGUMENT;
	// The entries and what finds them by name, and the properties while they are put together.
	if (!may_use(count * 2 * sizeof(Entry) + 2 * in->left()))
		return RPY_ERROR_NO_MEMORY;
	entries->reserve(count);
	for (uint32_t i = 0; i < count; i++) {
		uint32_t change = in->u32();
		Entry entry = {static_cast<Change>(change), take_property(in), false};
		if (!in->ok() || change > static_cast<uint32_t>(Change::remove) || !is_sound(entry.property))
			return RPY_ERROR_INVALID_ARGUMENT;
		entries->push_back(entry);
	}
	return RPY_ERROR_NONE;
}

// The properties of a group with the entries applied to them.
rpy_error_t merge(const std::string &before, Entries *entries, std::string *after)
{
	std::unordered_map<std::string_view, Entry *> by_name;
	for (Entry &entry : *entries)
		if (!by_name.emplace(entry.property.name, &entry).second)
			return RPY_ERROR_INVALID_ARGUMENT;
	Writer merged;
	size_t count_at = merged.hole();
	uint32_t count = 0;
	Reader in(before);
	for (uint32_t left = in.u32(); left > 0; left--) {
		Property property = take_property(&in);
		auto found = by_name.find(property.name);
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
	merged.fill(count_at, count);
	if (!merged.ok())
		return RPY_ERROR_NO_MEMORY;
	if (merged.size() > group_bytes_max)
		return RPY_ERROR_NO_RESOURCES;
	after->assign(merged.view());
	return RPY_ERROR_NONE;
}

rpy_error_t commit(Daemon *daemon, Reader *in, Writer *out)
{
	uint64_t id = in->u64(), base = in->u64();
	Entries entries;
	if (rpy_error_t error = take_entries(in, &entries); error != RPY_ERROR_NONE)
		return error;
	const uint64_t change = take_change(in);
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	Update update;
	update.group = id;
	Node *group = nullptr;
	auto version = std::make_shared<Version>();
	update.prepare = [&](Rows *rows) {
		group = daemon->model.find(Parent::group, id);
		if (group == nullptr)
			return RPY_ERROR_DELETED;
		const Version *old = group->version.get();
		update.nothing = old->id != base;
		if (update.nothing)
			return RPY_ERROR_NONE;
		if (rpy_error_t error = merge(old->properties, &entries, &version->properties); error != RPY_ERROR_NONE)
			return error;
		version->id = daemon->model.take_id(group->stored());
		if (group->stored()) {
			rows->push_back({Row::What::put_version, version->id, 0, 0, 0, {}, {}, version->properties});
			rows->push_back({Row::What::set_version, id, 0, 0, version->id});
			if (old->id != 0 && old->nodes == 1)
				rows->push_back({Row::What::delete_version, old->id});
		}
		return RPY_ERROR_NONE;
	};
	update.apply = [&] {
		daemon->model.set_version(group, version);
		group->change = change;
	};
	rpy_error_t error = daemon->updates.run(&update);
	out->u32(update.nothing ? 0 : 1);
	return error;
}

// ---- Snapshots ----

using Nodes = std::vector<std::unique_ptr<Node>>;

// Copies the stored groups below `from` to below `to`, as nodes of another kind. Parents come first.
void copy_groups(Daemon *daemon, Node *from, Node *to, Parent kind, Nodes *copies)
{
	std::vector<std::pair<Node *, Node *>> pairs = {{from, to}};
	for (size_t i = 0; i < pairs.size(); i++) {
		auto [source, target] = pairs[i];
		for (Node *group : source->groups) {
			if (!group->stored())
				continue;
			auto copy = new_node(daemon, kind, target, group->name);
			copy->type = group->type;
			copy->version = group->version;
			pairs.emplace_back(group, copy.get());
			copies->push_back(std::move(copy));
		}
	}
}

void add_rows(const Nodes &nodes, Rows *rows)
{
	for (const auto &node : nodes)
		rows->push_back(node_row(*node));
}

void add_all(Model *model, Nodes *nodes)
{
	for (auto &node : *nodes)
		model->add(std::move(node));
}

// Deleting an old tree and adding a new one that shares its versions: those that are still held mustn't go.
void drop_deleted_versions(const Nodes &added, Rows *rows)
{
	std::unordered_map<uint64_t, bool> held;
	for (const auto &node : added)
		if (node->version)
			held[node->version->id] = true;
	rows->erase(
	    std::remove_if(rows->begin(), rows->end(),
		[&held](const Row &row) { return row.what == Row::What::delete_version && held.count(row.id) != 0; }),
	    rows->end());
}

rpy_error_t take_snapshot(Daemon *daemon, Reader *in, Writer *out)
{
	uint64_t id = in->u64();
	std::string name(in->text());
	bool replace = in->u32() != 0;
	if (!in->done() || !is_name(name))
		return RPY_ERROR_INVALID_ARGUMENT;
	Update update;
	Nodes nodes; // of the new snapshot, itself first
	Node *old = nullptr;
	uint64_t taken = 0;
	update.prepare = [&](Rows *rows) {
		Node *instance = daemon->model.find(Parent::instance, id);
		if (instance == nullptr)
			return RPY_ERROR_DELETED;
		old = daemon->model.child(instance, Parent::snapshot, name);
		if ((old != nullptr) != replace)
			return replace ? RPY_ERROR_DELETED : RPY_ERROR_EXISTS;
		if (old != nullptr)
			delete_rows(Model::tree(old), rows);
		nodes.push_back(new_node(daemon, Parent::snapshot, instance, name));
		taken = nodes.front()->id;
		copy_groups(daemon, instance, nodes.front().get(), Parent::frozen, &nodes);
		drop_deleted_versions(nodes, rows);
		add_rows(nodes, rows);
		return RPY_ERROR_NONE;
	};
	update.apply = [&] {
		if (old != nullptr)
			daemon->model.remove(old);
		add_all(&daemon->model, &nodes);
	};
	rpy_error_t error = daemon->updates.run(&update);
	out->u64(taken);
	return error;
}

rpy_error_t revert_snapshot(Daemon *daemon, Reader *in, Writer *)
{
	uint64_t id = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	Update update;
	Nodes nodes;
	std::vector<Node *> gone; // the instance's stored groups of the first level
	update.prepare = [&](Rows *rows) {
		Node *snapshot = daemon->model.find(Parent::snapshot, id);
		if (snapshot == nullptr)
			return RPY_ERROR_DELETED;
		Node *instance = snapshot->parent;
		std::vector<Node *> all;
		for (Node *group : instance->groups) {
			if (!group->stored())
				continue;
			gone.push_back(group);
			std::vector<Node *> tree = Model::tree(group);
			all.insert(all.end(), tree.begin(), tree.end());
		}
		delete_rows(all, rows);
		copy_groups(daemon, snapshot, instance, Parent::group, &nodes);
		for (const auto &node : nodes) // a temporary group keeps its name
			if (node->parent == instance)
				if (Node *other = daemon->model.child(instance, Parent::group, node->name);
				    other && !other->stored())
					return RPY_ERROR_CONFLICT;
		drop_deleted_versions(nodes, rows);
		add_rows(nodes, rows);
		return RPY_ERROR_NONE;
	};
	update.apply = [&] {
		for (Node *group : gone)
			daemon->model.remove(group);
		add_all(&daemon->model, &nodes);
	};
	return daemon->updates.run(&update);
}

// ---- What an operator asks for ----

// Both need a store in a file. Another one answers as a daemon does that doesn't know the request.
rpy_error_t verify(Daemon *daemon, Reader *in, Writer *out)
{
	std::string findings;
	StoreFile *file = daemon->store->file();
	if (!in->done() || file == nullptr)
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!file->verify(&findings))
		return RPY_ERROR_BACKEND_ACCESS;
	out->text(findings);
	return RPY_ERROR_NONE;
}

rpy_error_t backup(Daemon *daemon, Reader *in, Writer *out)
{
	std::string bytes;
	StoreFile *file = daemon->store->file();
	if (!in->done() || file == nullptr)
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!may_use(2 * file->bytes())) // SQLite's copy, and ours
		return RPY_ERROR_NO_MEMORY;
	if (!file->copy(&bytes))
		return RPY_ERROR_BACKEND_ACCESS;
	if (!make_room(out, bytes.size()))
		return RPY_ERROR_NO_MEMORY;
	out->bytes(bytes);
	return RPY_ERROR_NONE;
}

// ---- The table ----

struct Request {
	Handler *handler;
	bool for_operators; // whoever may change things; what takes the store for long isn't everybody's either
};

constexpr Request requests[] = {
    {get_status, false},
    {decode, false},
    {list_services, false},
    {list_instances, false},
    {list_snapshots, false},
    {add_service, true},
    {add_instance, true},
    {delete_entity, true},
    {give_group<find_named>, false},
    {give_group<find_by_id>, false},
    {list_groups, false},
    {add_group, true},
    {delete_group, true},
    {commit, true},
    {get_snapshot, false},
    {take_snapshot, true},
    {delete_snapshot, true},
    {revert_snapshot, true},
    {verify, true},
    {backup, true},
    {together, false},
    {withdraw_group, true},
};
static_assert(sizeof(requests) / sizeof(*requests) == static_cast<size_t>(Op::count_));

// The head of a reply, and what `fill` puts behind it, unless that fails.
template <typename Fill>
void put_reply(Writer *reply, Fill fill)
{
	reply->u32(magic);
	const size_t error_at = reply->hole();
	const size_t begin = reply->size();
	rpy_error_t error = RPY_ERROR_NO_MEMORY;
	try {
		error = fill();
	} catch (const std::bad_alloc &) { // what is there of the reply goes, too
	}
	if (error != RPY_ERROR_NONE && reply->ok())
		reply->cut(begin);
	reply->fill(error_at, static_cast<uint32_t>(error));
}

rpy_error_t carry_out(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)(), Writer *reply)
{
	Reader in(request);
	bool speaks = in.u32() == magic;
	uint32_t op = in.u32();
	if (!in.ok() || !speaks || op >= static_cast<uint32_t>(Op::count_))
		return RPY_ERROR_INVALID_ARGUMENT;
	if (!(requests[op].for_operators ? modify() : read()))
		return RPY_ERROR_PERMISSION_DENIED;
	return requests[op].handler(daemon, &in, reply);
}

} // namespace

// Nodes come with their parents before them; what doesn't fit the tree is refused.
Failure Daemon::load()
{
	std::unordered_map<uint64_t, std::shared_ptr<const Version>> versions;
	Store::Loader loader;
	loader.version = [&versions](uint64_t id, std::string_view properties) {
		auto version = std::make_shared<Version>();
		version->id = id;
		version->properties = properties;
		versions.emplace(id, std::move(version));
	};
	loader.node = [this, &versions](const Row &row) {
		if (row.kind < static_cast<uint32_t>(Parent::service) ||
		    row.kind > static_cast<uint32_t>(Parent::frozen))
			return false;
		auto node = std::make_unique<Node>();
		node->kind = static_cast<Parent>(row.kind);
		node->id = row.id;
		node->name = row.name;
		node->parent = row.parent == 0 ? nullptr : model.find(row.parent);
		if ((node->parent == nullptr) != (node->kind == Parent::service))
			return false;
		if (node->is_group()) {
			auto version = versions.find(row.version);
			if (!is_name(row.name) || !is_name(row.type) || kind_below(node->parent) != node->kind ||
			    (row.version != 0 && version == versions.end()))
				return false;
			node->type = model.intern(row.type);
			node->version = row.version == 0 ? model.no_properties() : version->second;
		} else if (node->parent != nullptr &&
			   node->parent->kind !=
			       (node->kind == Parent::instance ? Parent::service : Parent::instance)) {
			return false;
		}
		if (model.child(node->parent, node->kind, node->name) != nullptr)
			return false;
		model.add(std::move(node));
		return true;
	};
	uint64_t next = 0;
	Failure failure = store->open(loader, &next);
	if (!failure)
		model.set_next_id(next);
	return failure;
}

void answer(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)(), Writer *reply)
{
	put_reply(reply, [&] { return carry_out(daemon, request, read, modify, reply); });
}

// The writer has gone when the call ends by a jump.
void serve_call(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)())
{
	char small[32768];
	const char *data = small;
	size_t size = 0;
	{
		Writer reply;
		reply.move_to(small, sizeof(small));
		answer(daemon, request, read, modify, &reply);
		size = reply.size();
		if (reply.ok() && reply.owns())
			if (void *room = hatch_reply_memory(size))
				reply.move_to(static_cast<char *>(room), size);
		data = reply.data();
		if (!reply.ok() || reply.owns()) {
			const uint32_t bare[] = {magic, RPY_ERROR_NO_MEMORY};
			memcpy(small, bare, sizeof(bare));
			size = sizeof(bare);
			data = small;
		}
	}
	(void) hatch_return(data, size, nullptr, 0);
}

} // namespace repository
