// Listings of groups. A listing is fetched whole, page by page, before its iterator succeeds, so that the daemon's end never
// looks like the end of a list. A page is a block; a group of it keeps the page.
#include "rpy/object.h"

using namespace rpy;

namespace {

struct Want {
	Filter filter;
	std::string_view text;
};

// Whether a page has sound groups with rising ids. *after becomes the last id.
bool check_page(Call *call, uint32_t count, uint64_t *after)
{
	Group group;
	for (uint32_t i = 0; i < count; i++) {
		if (!take_group(&call->in, &group) || group.id <= *after)
			return false;
		*after = group.id;
	}
	return call->in.done();
}

// The pages are linked from the last to the first while they arrive. Turns the links round.
Block *in_order(Block *last)
{
	Block *first = nullptr;
	while (last != nullptr) {
		Block *before = last->next_page;
		last->next_page = first;
		first = last;
		last = before;
	}
	return first;
}

constexpr size_t page_head = 2 * sizeof(uint32_t); // magic and error, which every reply has
// Begins to walk a page.
void enter_page(rpy_iter_t *iter)
{
	iter->in = Reader(iter->block->data(), iter->block->size);
	(void) iter->in.bytes(page_head);
	(void) iter->in.u32();
	iter->left = iter->in.u32();
}

// The next page begins after the last id of this one, so that groups which are deleted or added meanwhile shift nothing. Ids
// have to rise, and all pages share one budget: a daemon that always announces more comes to an end.
int start_groups(rpy_iter_t *iter, const Top &top, const Want &want)
{
	if (iter == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->handle != top.handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	BlockRef pages;
	Budget budget(listing_max());
	uint64_t after = 0;
	for (bool more = true; more;) {
		Call call(Op::list_groups);
		put_parent(&call.out, top.kind, top.id);
		call.out.u32(static_cast<uint32_t>(want.filter));
		call.out.text(want.text);
		call.out.u64(after);
		if (!call.send(top.handle, &budget))
			return -1;
		more = call.in.u32() != 0;
		uint32_t count = call.in.u32();
		if (!call.in.ok() || (more && count == 0) || !check_page(&call, count, &after))
			return fail(RPY_ERROR_INTERNAL);
		call.reply->next_page = pages.release();
		pages = std::move(call.reply);
	}
	iter->block = BlockRef(in_order(pages.release()));
	iter->walk = Walk::groups;
	iter->frozen = top.is_frozen();
	enter_page(iter);
	return 0;
}

int start_like(rpy_iter_t *iter, const Top &top, const char *name, const char *type)
{
	if (name != nullptr && type != nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (name != nullptr)
		return start_groups(iter, top, {Filter::name_without_case, name});
	if (type == nullptr)
		return start_groups(iter, top, {Filter::all, {}});
	std::string_view pattern(type);
	size_t star = pattern.find('*');
	return start_groups(
	    iter, top, {star == pattern.npos ? Filter::type : Filter::type_prefix, pattern.substr(0, star)});
}

} // namespace

int _rpy_iter_service_pgs_like(rpy_iter_t *iter, const rpy_service_t *service, const char *name, const char *type)
{
	Top top;
	return set_top(&top, Parent::service, service) ? start_like(iter, top, name, type) : -1;
}
int _rpy_iter_instance_pgs_like(rpy_iter_t *iter, const rpy_instance_t *instance, const char *name, const char *type)
{
	Top top;
	return set_top(&top, Parent::instance, instance) ? start_like(iter, top, name, type) : -1;
}
int _rpy_iter_pg_pgs_like(rpy_iter_t *iter, const rpy_propertygroup_t *pg, const char *name, const char *type)
{
	Top top;
	return set_top(&top, pg) ? start_like(iter, top, name, type) : -1;
}

int rpy_iter_service_pgs(rpy_iter_t *iter, const rpy_service_t *service)
{
	return _rpy_iter_service_pgs_like(iter, service, nullptr, nullptr);
}
int rpy_iter_instance_pgs(rpy_iter_t *iter, const rpy_instance_t *instance)
{
	return _rpy_iter_instance_pgs_like(iter, instance, nullptr, nullptr);
}
int rpy_iter_snapshot_pgs(rpy_iter_t *iter, const rpy_snapshot_t *snapshot)
{
	Top top;
	return set_top(&top, Parent::snapshot, snapshot) ? start_groups(iter, top, {Filter::all, {}}) : -1;
}
int rpy_iter_pg_pgs(rpy_iter_t *iter, const rpy_propertygroup_t *pg)
{
	return _rpy_iter_pg_pgs_like(iter, pg, nullptr, nullptr);
}

int rpy_iter_next_pg(rpy_iter_t *iter, rpy_propertygroup_t *pg)
{
	if (iter == nullptr || pg == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (iter->walk != Walk::groups)
		return fail(RPY_ERROR_NOT_SET);
	if (iter->handle != pg->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	while (iter->left == 0) {
		BlockRef next = iter->block ? BlockRef::share(iter->block->next_page) : BlockRef();
		iter->block = std::move(next); // the groups of a page keep it, and free it with the last of them
		if (!iter->block)
			return 0;
		enter_page(iter);
	}
	iter->left--;
	Group &group = pg->group;
	group.id = iter->in.u64();
	group.version = iter->in.u64();
	group.flags = iter->in.u32();
	group.name = iter->in.text();
	group.type = iter->in.text();
	group.properties = iter->in.text();
	pg->block = iter->block;
	pg->frozen = iter->frozen;
	return 1;
}
