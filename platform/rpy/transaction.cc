// Transactions: entries are gathered here, with the properties of the group at the start as their measure, and carried out by the
// daemon in one call. Values belong to their entry, entries to their transaction, once they are attached.
//
// The transaction holds the group's block from its start on, so what it measures by can't change under it. If somebody
// else commits in between, the daemon changes nothing and says so; the caller starts again with what is there then.
#include "rpy/object.h"

using namespace rpy;

namespace {

void detach(rpy_transaction_entry_t *entry)
{
	rpy_transaction_t *transaction = entry->transaction;
	if (transaction == nullptr)
		return;
	rpy_transaction_entry_t *before = nullptr;
	for (rpy_transaction_entry_t *at = transaction->first; at != entry; at = at->next)
		before = at;
	(before == nullptr ? transaction->first : before->next) = entry->next;
	if (transaction->last == entry)
		transaction->last = before;
	entry->next = nullptr;
	entry->transaction = nullptr;
}

bool has_entry(const rpy_transaction_t *transaction, std::string_view name)
{
	for (const rpy_transaction_entry_t *entry = transaction->first; entry != nullptr; entry = entry->next)
		if (name == entry->name)
			return true;
	return false;
}

// What can't be carried out is refused here, where the caller can tell which property it is: by the version that the
// transaction was started on. The daemon looks again.
int attach(
    rpy_transaction_t *transaction, rpy_transaction_entry_t *entry, Change change, const char *text, uint32_t type)
{
	if (transaction == nullptr || entry == nullptr || !is_type(type))
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (transaction->handle != entry->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (!transaction->block)
		return fail(RPY_ERROR_NOT_SET);
	std::string_view name = name_of(text);
	if (name.empty())
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (entry->transaction != nullptr || has_entry(transaction, name))
		return fail(RPY_ERROR_IN_USE);
	Property found;
	bool exists = find_property(transaction->group, name, &found);
	if (exists == (change == Change::create))
		return fail(exists ? RPY_ERROR_EXISTS : RPY_ERROR_NOT_FOUND);
	if (change == Change::change && found.type != type)
		return fail(RPY_ERROR_TYPE_MISMATCH);
	(void) give_text(name, entry->name, sizeof(entry->name));
	entry->change = change;
	entry->type = type;
	entry->transaction = transaction;
	(transaction->first == nullptr ? transaction->first : transaction->last->next) = entry;
	transaction->last = entry;
	return 0;
}

// Writes an entry: what to do, and the property as it is to be. False if a value has another type.
bool put_entry(Writer *out, const rpy_transaction_entry_t *entry)
{
	out->u32(static_cast<uint32_t>(entry->change));
	out->text(entry->name);
	out->u32(entry->type);
	size_t count_at = out->reserve();
	size_t size_at = out->reserve();
	size_t begin = out->size();
	uint32_t count = 0;
	for (const rpy_value_t *value = entry->first; value != nullptr; value = value->next, count++) {
		if (value->type != entry->type)
			return false;
		if (is_number(value->type))
			out->u64(value->number);
		else
			out->text(value->view());
	}
	size_t size = out->size() - begin;
	if (out->ok() && size > UINT32_MAX)
		return false;
	out->patch(count_at, count);
	out->patch(size_at, static_cast<uint32_t>(size));
	return true;
}

} // namespace

rpy_error_t rpy::put_entries(Writer *out, const rpy_transaction_t *transaction)
{
	const size_t count_at = out->reserve();
	uint32_t count = 0;
	for (const rpy_transaction_entry_t *entry = transaction->first; entry != nullptr; entry = entry->next, count++)
		if (!put_entry(out, entry))
			return RPY_ERROR_TYPE_MISMATCH;
	out->patch(count_at, count);
	return RPY_ERROR_NONE;
}

rpy_transaction_t *rpy_transaction_create(rpy_handle_t *handle)
{
	return make_object<rpy_transaction_t>(handle);
}

rpy_transaction_entry_t *rpy_entry_create(rpy_handle_t *handle)
{
	return make_object<rpy_transaction_entry_t>(handle);
}

void rpy_transaction_destroy(rpy_transaction_t *transaction)
{
	if (transaction != nullptr)
		(void) rpy_transaction_reset(transaction);
	delete transaction;
}

int rpy_transaction_reset(rpy_transaction_t *transaction)
{
	if (transaction == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	while (transaction->first != nullptr)
		detach(transaction->first);
	transaction->block = BlockRef();
	return 0;
}

void rpy_transaction_destroy_children(rpy_transaction_t *transaction)
{
	while (transaction != nullptr && transaction->first != nullptr) {
		rpy_transaction_entry_t *entry = transaction->first;
		transaction->first = entry->next;
		if (transaction->first == nullptr)
			transaction->last = nullptr;
		entry->transaction = nullptr;
		rpy_entry_destroy_children(entry);
		rpy_entry_destroy(entry);
	}
}

int rpy_transaction_start(rpy_transaction_t *transaction, const rpy_propertygroup_t *pg)
{
	if (transaction == nullptr || pg == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (transaction->handle != pg->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (!pg->block)
		return fail(RPY_ERROR_NOT_SET);
	if (pg->frozen)
		return fail(RPY_ERROR_CONSTRAINT_VIOLATED);
	if (transaction->block)
		return fail(RPY_ERROR_IN_USE);
	transaction->block = pg->block;
	transaction->group = pg->group;
	return 0;
}

int rpy_transaction_start_new(rpy_transaction_t *transaction)
{
	if (transaction == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (transaction->block)
		return fail(RPY_ERROR_IN_USE);
	constexpr uint32_t no_properties = 0;
	BlockRef block(make_block(sizeof(no_properties)));
	if (!block)
		return fail(RPY_ERROR_NO_MEMORY);
	memcpy(block->data(), &no_properties, sizeof(no_properties));
	transaction->group = {};
	transaction->group.properties = {block->data(), sizeof(no_properties)};
	transaction->block = std::move(block);
	return 0;
}

int rpy_transaction_property_new(
    rpy_transaction_t *transaction, rpy_transaction_entry_t *entry, const char *name, rpy_type_t type)
{
	return attach(transaction, entry, Change::create, name, static_cast<uint32_t>(type));
}
int rpy_transaction_property_change(
    rpy_transaction_t *transaction, rpy_transaction_entry_t *entry, const char *name, rpy_type_t type)
{
	return attach(transaction, entry, Change::change, name, static_cast<uint32_t>(type));
}
int rpy_transaction_property_delete(rpy_transaction_t *transaction, rpy_transaction_entry_t *entry, const char *name)
{
	return attach(transaction, entry, Change::remove, name, RPY_TYPE_ASTRING);
}

int rpy_entry_add_value(rpy_transaction_entry_t *entry, rpy_value_t *value)
{
	if (entry == nullptr || value == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (entry->handle != value->handle)
		return fail(RPY_ERROR_HANDLE_MISMATCH);
	if (value->owner != nullptr)
		return fail(RPY_ERROR_IN_USE);
	if (value->type == RPY_TYPE_INVALID)
		return fail(RPY_ERROR_NOT_SET);
	if (entry->transaction != nullptr && (value->type != entry->type || entry->change == Change::remove))
		return fail(RPY_ERROR_TYPE_MISMATCH);
	value->owner = entry;
	(entry->first == nullptr ? entry->first : entry->last->next) = value;
	entry->last = value;
	return 0;
}

void rpy_entry_destroy_children(rpy_transaction_entry_t *entry)
{
	while (entry != nullptr && entry->first != nullptr) {
		rpy_value_t *value = entry->first;
		entry->first = value->next;
		rpy_value_destroy(value);
	}
	if (entry != nullptr)
		entry->last = nullptr;
}

void rpy_entry_destroy(rpy_transaction_entry_t *entry)
{
	if (entry == nullptr)
		return;
	detach(entry);
	while (entry->first != nullptr) {
		rpy_value_t *value = entry->first;
		entry->first = value->next;
		value->next = nullptr;
		value->owner = nullptr;
	}
	delete entry;
}

// The daemon compares the version that the group had at the start: 0 means that another commit came first, and that nothing of
// this one took effect. The transaction stays as it is either way.
int rpy_transaction_commit(rpy_transaction_t *transaction)
{
	if (transaction == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (!transaction->block || transaction->group.id == 0)
		return fail(RPY_ERROR_NOT_SET);
	Call call(Op::commit);
	call.out.u64(transaction->group.id);
	call.out.u64(transaction->group.version);
	if (rpy_error_t error = put_entries(&call.out, transaction); error != RPY_ERROR_NONE)
		return fail(error);
	call.out.u64(transaction->handle->change);
	if (!call.send(transaction->handle))
		return -1;
	uint32_t result = call.in.u32();
	if (!call.sound() || result > 1)
		return fail(RPY_ERROR_INTERNAL);
	return static_cast<int>(result);
}
