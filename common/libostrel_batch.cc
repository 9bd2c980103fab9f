// Batches: items in two groups, and their form as one list.
#include "libostrel_batch.h"

#include <cstring>

#include "base/guards.h"
#include "libostrel_error.h"

void ostrel_free_batch_item(BatchItem &item)
{
	attrlist_free(item.idl);
	attrlist_free(item.list);
}

namespace {

constexpr char key_items[] = "items";
constexpr char key_kind[] = "kind";
constexpr char key_flags[] = "flags";
constexpr char key_version[] = "version";
constexpr char key_ids[] = "ids";
constexpr char key_list[] = "list";

// What each kind needs.
struct KindRule {
	BatchKind kind;
	bool needs_ids;
	bool needs_list;
};
constexpr KindRule kind_rules[] = {
    {BatchKind::ExpectObject, true, false},
    {BatchKind::ExpectDatabase, false, false},
    {BatchKind::Write, true, true},
    {BatchKind::Rename, true, true},
    {BatchKind::Remove, true, false},
};

const KindRule *find_rule(uint32_t kind)
{
	for (const KindRule &rule : kind_rules) {
		if (static_cast<uint32_t>(rule.kind) == kind)
			return &rule;
	}
	return nullptr;
}

bool set_version(const char *text, ObjectVersion *version)
{
	const size_t length = text != nullptr ? strnlen(text, ostrel_version_size) : ostrel_version_size;
	if (length == ostrel_version_size)
		return false;
	for (size_t i = 0; i < length; i++) {
		if (text[i] <= ' ' || text[i] > '~')
			return false;
	}
	memcpy(version->text, text, length + 1);
	return true;
}

ostrel_error_t copy_list(attrlist_t *list, AttrList *copy)
{
	return list == nullptr ? OSTREL_SUCCESS : ostrel_errno2error(attrlist_dup(list, copy->out(), 0));
}

} // namespace

ostrel_error_t Batch::add(BatchKind kind, attrlist_t *idl, uint64_t flags, attrlist_t *list, const char *version)
{
	const KindRule *rule = find_rule(static_cast<uint32_t>(kind));
	BatchItem item = {kind, nullptr, nullptr, flags, {}};
	if (rule == nullptr || rule->needs_ids != (idl != nullptr) || rule->needs_list != (list != nullptr) ||
	    !set_version(version, &item.version))
		return OSTREL_INVALID_ARG;
	if (conditions_.size() + steps_.size() >= items_max)
		return OSTREL_NO_MEMORY;
	AttrList ids;
	AttrList copy;
	if (ostrel_error_t result = copy_list(idl, &ids))
		return result;
	if (ostrel_error_t result = copy_list(list, &copy))
		return result;
	Items &items = ostrel_is_condition(kind) ? conditions_ : steps_;
	item.idl = ids.get();
	item.list = copy.get();
	if (!items.append(item))
		return OSTREL_NO_MEMORY;
	(void) ids.release(); // the item's now
	(void) copy.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t Batch::expect(attrlist_t *idl, const char *version)
{
	return add(BatchKind::ExpectObject, idl, 0, nullptr, version);
}

ostrel_error_t Batch::expect_database(const char *version)
{
	return add(BatchKind::ExpectDatabase, nullptr, 0, nullptr, version);
}

ostrel_error_t Batch::write(attrlist_t *idl, uint64_t flags, attrlist_t *props)
{
	return add(BatchKind::Write, idl, flags, props, "");
}

ostrel_error_t Batch::rename(attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
{
	return add(BatchKind::Rename, idl, flags, newidl, "");
}

ostrel_error_t Batch::remove(attrlist_t *idl, uint64_t flags)
{
	return add(BatchKind::Remove, idl, flags, nullptr, "");
}

// ---- As one list ----

static int pack_item(const BatchItem &item, attrlist_t *list)
{
	int error = attrlist_add_uint32(list, key_kind, static_cast<uint32_t>(item.kind));
	if (error == 0 && item.flags != 0)
		error = attrlist_add_uint64(list, key_flags, item.flags);
	if (error == 0 && ostrel_is_condition(item.kind))
		error = attrlist_add_string(list, key_version, item.version.text);
	if (error == 0 && item.idl != nullptr)
		error = attrlist_add_attrlist(list, key_ids, item.idl);
	if (error == 0 && item.list != nullptr)
		error = attrlist_add_attrlist(list, key_list, item.list);
	return error;
}

ostrel_error_t Batch::pack(attrlist_t **listp) const
{
	GrowingArray<attrlist_t *, [](attrlist_t *&item) { attrlist_free(item); }> packed;
	for (const Items *items : {&conditions_, &steps_}) {
		for (const BatchItem &item : *items) {
			AttrList list;
			if (int error = attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0))
				return ostrel_errno2error(error);
			if (int error = pack_item(item, list.get()))
				return ostrel_errno2error(error);
			if (!packed.append(list.get()))
				return OSTREL_NO_MEMORY;
			(void) list.release(); // the array's now
		}
	}
	AttrList whole;
	int error = attrlist_alloc(whole.out(), ATL_UNIQUE_NAME, 0);
	if (error == 0)
		error = attrlist_add_attrlist_array(
		    whole.get(), key_items, packed.begin(), static_cast<uint_t>(packed.size()));
	if (error != 0)
		return ostrel_errno2error(error);
	*listp = whole.release();
	return OSTREL_SUCCESS;
}

// What comes from another process is checked as what a caller adds.
ostrel_error_t Batch::unpack_item(attrlist_t *item)
{
	uint32_t kind;
	uint64_t flags = 0;
	char nothing[] = "";
	char *version = nothing;
	attrlist_t *idl = nullptr;
	attrlist_t *list = nullptr;
	if (attrlist_lookup_uint32(item, key_kind, &kind) != 0 || find_rule(kind) == nullptr)
		return OSTREL_INVALID_ARG;
	(void) attrlist_lookup_uint64(item, key_flags, &flags); // each of these may be missing
	(void) attrlist_lookup_string(item, key_version, &version);
	(void) attrlist_lookup_attrlist(item, key_ids, &idl);
	(void) attrlist_lookup_attrlist(item, key_list, &list);
	return add(static_cast<BatchKind>(kind), idl, flags, list, version);
}

ostrel_error_t Batch::unpack(attrlist_t *list)
{
	attrlist_t **items;
	uint_t count;
	if (attrlist_lookup_attrlist_array(list, key_items, &items, &count) != 0 || count > items_max)
		return OSTREL_INVALID_ARG;
	for (uint_t i = 0; i < count; i++) {
		if (ostrel_error_t result = unpack_item(items[i]))
			return result;
	}
	return OSTREL_SUCCESS;
}
