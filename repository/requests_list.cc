// Listings: of names, and of groups in pages. A listing holds the model's lock for short pieces, so that updates take effect in
// between; its position is the id of the last node that it looked at.
#include <algorithm>

#include "base/clock.h"
#include "requests_handlers.h"

namespace repository {

using namespace rpy;

namespace {

// The first node of a list by id whose id is greater than `after`.
std::vector<Node *>::const_iterator first_after(const std::vector<Node *> &list, uint64_t after)
{
	return std::upper_bound(
	    list.begin(), list.end(), after, [](uint64_t id, const Node *other) { return id < other->id; });
}

rpy_error_t put_names(const std::vector<Node *> &list, uint64_t after, Writer *out)
{
	size_t more_at = out->reserve(), count_at = out->reserve();
	uint32_t count = 0;
	auto at = first_after(list, after);
	for (; at != list.end() && count < page_most; ++at, count++) {
		out->u64((*at)->id);
		out->text((*at)->name);
	}
	out->patch(more_at, at == list.end() ? 0 : 1);
	out->patch(count_at, count);
	return RPY_ERROR_NONE;
}

rpy_error_t list_members(Daemon *daemon, NodeKind kind, Reader *in, Writer *out)
{
	const uint64_t id = in->u64(), after = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	const Node *node = daemon->model.find(kind, id);
	return node == nullptr ? RPY_ERROR_DELETED : put_names(node->members, after, out);
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

// How long a listing may keep updates waiting at a time.
class Piece {
public:
	// Counts a group. True if the piece is over. Most listings are too short for a look at the clock.
	bool is_over()
	{
		if (++looked_ > groups_max)
			return true;
		if (looked_ % between_looks != 0)
			return false;
		if (looked_ == between_looks)
			end_ = Deadline::in(time_max_ns);
		return end_.has_passed();
	}

private:
	static constexpr size_t groups_max = 4096, between_looks = 32;
	static constexpr int64_t time_max_ns = millisecond_ns;

	size_t looked_ = 0;
	Deadline end_ = Deadline::never();
};

// How much of a page is written under the lock, if its groups aren't large: to copy a small group takes no longer than to
// share it. It is as much as a thread keeps for its replies.
constexpr size_t direct_bytes = size_t{1} << 20;
constexpr size_t large_group = size_t{64} << 10;

// A listing of groups, and one page of it: groups that are written already and, after them, groups that are shared, to be
// written without the lock.
struct Listing {
	NodeKind kind = {};
	uint64_t id = 0; // of the parent
	Filter filter = Filter::all;
	std::string_view text;
	uint64_t after = 0; // the last group that was looked at

	uint32_t count = 0;
	size_t bytes = 0;
	std::vector<FoundGroup> shared;
	size_t shared_bytes = 0;
	bool shares = false;     // all groups from here on
	bool wants_room = false; // has to get room in the reply before it goes on
	bool more = false;       // a group is left that the page has no room for

	bool is_full() const
	{
		return count >= page_most || (count >= page_least && bytes >= page_bytes) || bytes >= page_bytes_most;
	}

	// Takes a group into the page. False: not now, for want of room or since the page is full.
	bool take(const Node *group, Writer *out)
	{
		more = is_full();
		if (more)
			return false;
		const rpy::Group wire = wire_group(*group);
		const size_t size = size_of(wire);
		shares = shares || size > large_group;
		wants_room = !shares && size > out->room() - out->size();
		if (wants_room)
			return false;
		if (shares) {
			shared.emplace_back(group);
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

// Goes on with a listing for one piece, under the lock. Sets *done once nothing is left or the page is full.
rpy_error_t list_piece(Daemon *daemon, Listing *listing, Writer *out, bool *done)
{
	ReadLock hold(daemon->model.lock);
	const Node *parent = daemon->model.find(listing->kind, listing->id); // which may have gone since the last piece
	if (parent == nullptr)
		return RPY_ERROR_DELETED;
	std::vector<Node *> named;
	if (listing->filter == Filter::name_without_case)
		named = daemon->model.children_without_case(parent, parent->group_kind(), listing->text);
	const std::vector<Node *> &list = listing->filter == Filter::name_without_case ? named : parent->groups;
	Piece piece;
	for (auto at = first_after(list, listing->after); at != list.end() && !listing->more; ++at) {
		if (piece.is_over())
			return RPY_ERROR_NONE;
		if (fits(*at, listing->filter, listing->text) && !listing->take(*at, out) && listing->wants_room)
			return RPY_ERROR_NONE;
		listing->after = (*at)->id;
	}
	*done = true;
	return RPY_ERROR_NONE;
}

// Writes the shared groups. A reader that may not have so much memory gets a shorter page.
bool put_shared(Listing *listing, Writer *out)
{
	if (listing->shared.empty())
		return true;
	if (!out->own()) // the hatch takes its memory back when it is asked for more
		return false;
	while (!make_room(out, listing->shared_bytes)) {
		if (listing->count <= 1)
			return false;
		for (size_t half = listing->shared.size() / 2; listing->shared.size() > half;)
			listing->give_back_last();
	}
	for (const FoundGroup &found : listing->shared)
		put_group(out, wire_group(found));
	return true;
}

} // namespace

rpy_error_t list_services(Daemon *daemon, Reader *in, Writer *out)
{
	const uint64_t after = in->u64();
	if (!in->done())
		return RPY_ERROR_INVALID_ARGUMENT;
	ReadLock hold(daemon->model.lock);
	return put_names(daemon->model.services(), after, out);
}

rpy_error_t list_instances(Daemon *daemon, Reader *in, Writer *out)
{
	return list_members(daemon, NodeKind::service, in, out);
}

rpy_error_t list_snapshots(Daemon *daemon, Reader *in, Writer *out)
{
	return list_members(daemon, NodeKind::instance, in, out);
}

rpy_error_t list_groups(Daemon *daemon, Reader *in, Writer *out)
{
	Listing listing;
	listing.kind = static_cast<NodeKind>(in->u32());
	listing.id = in->u64();
	uint32_t filter = in->u32();
	listing.text = in->text();
	listing.after = in->u64();
	if (!in->done() || filter > static_cast<uint32_t>(Filter::type_prefix))
		return RPY_ERROR_INVALID_ARGUMENT;
	listing.filter = static_cast<Filter>(filter);
	const size_t more_at = out->reserve(), count_at = out->reserve();
	for (bool done = false; !done;) {
		if (rpy_error_t error = list_piece(daemon, &listing, out, &done); error != RPY_ERROR_NONE)
			return error;
		if (listing.wants_room)
			listing.shares = out->room() >= direct_bytes || !make_room(out, direct_bytes - out->size());
	}
	if (!put_shared(&listing, out))
		return RPY_ERROR_NO_MEMORY;
	out->patch(more_at, listing.more ? 1 : 0);
	out->patch(count_at, listing.count);
	return RPY_ERROR_NONE;
}

} // namespace repository
