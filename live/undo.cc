// Taking an apply back, property by property.
//
// Three states of an object decide: before the apply, after it, and as it is now. What the apply changed and is as the apply left it
// goes back. What is as it was before needs nothing, so that a second run, or one after an apply that never came to its commit,
// changes nothing. All else was changed by others.
//
// Divisions: values; one object; all objects; databases.
#include "undo.h"

#include <cstring>
#include <type_traits>

#include "libostrel_handle.h"
#include "store.h"

// ---- Values ----

namespace {

// The pair of that name; NULL if there is none, or no list.
attrpair_t *find_pair(attrlist_t *list, const char *name)
{
	attrpair_t *pair = nullptr;
	return list != nullptr && attrlist_lookup_attrpair(list, name, &pair) == 0 ? pair : nullptr;
}

// A number of any type.
struct Number {
	bool is_negative;
	uint64_t bits;

	bool operator==(const Number &) const = default;
};

// The element `i` of a pair of numbers or booleans, a single one or an array. False: there is none, or it has another type.
template <typename T>
bool element_at(const attrpair_t *pair, uint_t i, Number *number, int (*one)(const attrpair_t *, T *),
    int (*all)(const attrpair_t *, T **, uint_t *))
{
	T value = {};
	T *values = &value;
	uint_t count = 1;
	if (one(pair, &value) != 0 && all(pair, &values, &count) != 0)
		return false;
	if (i >= count)
		return false;
	if constexpr (std::is_enum_v<T>)
		*number = {false, values[i] != B_FALSE ? uint64_t{1} : 0};
	else
		*number = {values[i] < 0, static_cast<uint64_t>(values[i])};
	return true;
}

bool number_at(const attrpair_t *pair, uint_t i, Number *number)
{
	return element_at(pair, i, number, attrpair_value_boolean_value, attrpair_value_boolean_array) ||
	       element_at(pair, i, number, attrpair_value_int32, attrpair_value_int32_array) ||
	       element_at(pair, i, number, attrpair_value_uint32, attrpair_value_uint32_array) ||
	       element_at(pair, i, number, attrpair_value_int64, attrpair_value_int64_array) ||
	       element_at(pair, i, number, attrpair_value_uint64, attrpair_value_uint64_array);
}

// The same for texts.
const char *text_at(const attrpair_t *pair, uint_t i)
{
	char *one = nullptr;
	char **texts = nullptr;
	uint_t count = 0;
	if (attrpair_value_string(pair, &one) == 0)
		return i == 0 ? one : nullptr;
	return attrpair_value_string_array(pair, &texts, &count) == 0 && i < count ? texts[i] : nullptr;
}

// Whether two pairs have the same values. Stores give a number back as another type than it was written with, and a single
// value as an array of one, so neither counts. NULL is a pair that isn't there.
bool same_values(const attrpair_t *a, const attrpair_t *b)
{
	if (a == nullptr || b == nullptr)
		return a == b;
	for (uint_t i = 0;; i++) {
		Number one = {};
		Number other = {};
		const bool has_one = number_at(a, i, &one);
		if (has_one != number_at(b, i, &other) || one != other)
			return false;
		const char *text = text_at(a, i);
		const char *other_text = text_at(b, i);
		if ((text == nullptr) != (other_text == nullptr) || (text != nullptr && strcmp(text, other_text) != 0))
			return false;
		if (!has_one && text == nullptr)
			return true;
	}
}

bool same_properties(attrlist_t *a, attrlist_t *b)
{
	if (a == nullptr || b == nullptr)
		return a == b;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(a, pair)) != nullptr;)
		if (!same_values(pair, find_pair(b, attrpair_name(pair))))
			return false;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(b, pair)) != nullptr;)
		if (find_pair(a, attrpair_name(pair)) == nullptr)
			return false;
	return true;
}

// ---- One object ----

// An object as it is now, and what becomes of it.
struct Now {
	attrlist_t *idl;
	attrlist_t *found; // NULL: there is none
	attrlist_t *left;
	attrlist_t *kept;
	attrlist_t *overruled;
	bool changes;
	char version[OSTRELX_VERSION_SIZE];
};

void free_now(Now &now)
{
	for (attrlist_t *list : {now.idl, now.found, now.left, now.kept, now.overruled})
		attrlist_free(list);
}

using Nows = GrowingArray<Now, free_now>;

ostrelx_error_t read_now(ostrel_db_t db, const UndoObject &object, Nows *nows)
{
	if (!nows->make_room())
		return OSTREL_NO_MEMORY;
	Now *now = nows->place();
	*now = {};
	nows->added();
	if (int error = attrlist_dup(object.idl, &now->idl, 0))
		return ostrel_errno2error(error);
	for (attrlist_t **list : {&now->kept, &now->overruled})
		if (int error = attrlist_alloc(list, ATL_UNIQUE_NAME, 0))
			return ostrel_errno2error(error);
	const ostrelx_error_t result = ostrelx_read(db, now->idl, 0, &now->found, now->version);
	if (result == OSTREL_NOT_FOUND)
		return OSTREL_SUCCESS;
	return result;
}

// Whether the apply changed a property.
bool is_changed(const UndoObject &object, const char *name)
{
	return !same_values(find_pair(object.before, name), find_pair(object.after, name));
}

// Decides about one property that is there now or was before, and adds what is left of it.
int settle_property(const UndoObject &object, const char *name, Now *now)
{
	attrpair_t *before = find_pair(object.before, name);
	attrpair_t *after = find_pair(object.after, name);
	attrpair_t *found = find_pair(now->found, name);
	const bool was_changed = is_changed(object, name);
	const bool is_foreign = !same_values(found, after) && !same_values(found, before);
	// What others removed has no value to show: that of the apply names it, or the one from before.
	attrpair_t *shown = found != nullptr ? found : after != nullptr ? after : before;
	if (is_foreign)
		if (int error = attrlist_add_attrpair(was_changed ? now->overruled : now->kept, shown))
			return error;
	attrpair_t *left = was_changed ? before : found;
	return left != nullptr ? attrlist_add_attrpair(now->left, left) : 0;
}

// Properties in the order from before, then the others.
int settle_properties(const UndoObject &object, Now *now)
{
	if (int error = attrlist_alloc(&now->left, ATL_UNIQUE_NAME, 0))
		return error;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(object.before, pair)) != nullptr;)
		if (int error = settle_property(object, attrpair_name(pair), now))
			return error;
	for (attrlist_t *list : {now->found, object.after})
		for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(list, pair)) != nullptr;) {
			const char *name = attrpair_name(pair);
			const bool is_done = find_pair(object.before, name) != nullptr ||
					     (list == object.after && find_pair(now->found, name) != nullptr);
			if (int error = is_done ? 0 : settle_property(object, name, now))
				return error;
		}
	// An object that the apply made goes, unless others added to it.
	if (object.before == nullptr && attrlist_next_attrpair(now->left, nullptr) == nullptr) {
		attrlist_free(now->left);
		now->left = nullptr;
	}
	return 0;
}

// Leaves the object as it is.
int keep_whole(Now *now)
{
	return now->found != nullptr ? attrlist_dup(now->found, &now->left, 0) : 0;
}

int settle(const UndoObject &object, Now *now)
{
	int error = 0;
	if (same_properties(now->found, object.before) || same_properties(object.before, object.after)) {
		error = keep_whole(now);
	} else if (same_properties(now->found, object.after) || now->found == nullptr) {
		// Nobody else was there; or others removed it, and all that it had is theirs to have changed.
		if (object.before != nullptr)
			error = attrlist_dup(object.before, &now->left, 0);
		if (error == 0 && now->found == nullptr && object.after != nullptr && object.before != nullptr)
			error = attrlist_merge(now->overruled, object.after, ATL_UNIQUE_NAME_TYPE);
	} else if (object.after == nullptr) {
		error = keep_whole(now); // others made one in the place of the one that the apply removed
		error = error != 0 ? error : attrlist_merge(now->kept, now->found, ATL_UNIQUE_NAME_TYPE);
	} else {
		error = settle_properties(object, now);
	}
	now->changes = !same_properties(now->found, now->left);
	return error;
}

// ---- All objects ----

bool has_pairs(attrlist_t *list)
{
	return attrlist_next_attrpair(list, nullptr) != nullptr;
}

// What an object says about whether the apply was carried out.
struct Signs {
	bool strong;  // it has a value that the apply wrote
	bool weak;    // it lacks what the apply took away, as it may have for others' sake
	bool counter; // it is in part as it was before
};

void add_signs(const UndoObject &object, const Now &now, Signs *signs)
{
	if (same_properties(object.before, object.after))
		return;
	if (same_properties(now.found, object.before)) {
		signs->counter = true;
	} else if (now.found == nullptr) {
		signs->weak = signs->weak || object.after == nullptr;
	} else if (same_properties(now.found, object.after)) {
		signs->strong = true;
	} else {
		for (attrlist_t *list : {object.before, object.after})
			for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(list, pair)) != nullptr;) {
				const char *name = attrpair_name(pair);
				attrpair_t *found = find_pair(now.found, name);
				const bool counts = is_changed(object, name);
				const bool is_after = counts && same_values(found, find_pair(object.after, name));
				signs->strong = signs->strong || (is_after && found != nullptr);
				signs->weak = signs->weak || is_after;
				signs->counter =
				    signs->counter || (counts && same_values(found, find_pair(object.before, name)));
			}
	}
}

// An apply whose record doesn't say that it was carried out may have died on either side of its commit. As a batch is carried
// out whole or not at all, one sign is enough. Without any, what is there is from before or by others, and stays.
bool was_carried_out(const UndoRecord &record, const Nows &nows)
{
	Signs signs = {record.state.is_applied, false, false};
	for (size_t i = 0; i < nows.size() && !signs.strong; i++)
		add_signs(record.objects[i], nows[i], &signs);
	return signs.strong || (signs.weak && !signs.counter);
}

ostrelx_error_t add_step(const UndoObject &object, const Now &now, ostrelx_batch *batch)
{
	if (ostrelx_error_t bad = ostrelx_batch_expect(batch, now.idl, now.version))
		return bad;
	if (!now.changes)
		return OSTREL_SUCCESS;
	return now.left != nullptr ? ostrelx_batch_write(batch, now.idl, object.flags, now.left)
				   : ostrelx_batch_remove(batch, now.idl, 0);
}

// Whether others changed what the apply had changed: also by making an object in the place of the one that it removed.
bool is_conflict(const UndoObject &object, const Now &now)
{
	return has_pairs(now.overruled) || (object.after == nullptr && has_pairs(now.kept));
}

void tell(const Nows &nows, ostrelx_undonecb_t *cb, void *arg)
{
	for (const Now &now : nows) {
		const ostrelx_undone_t undone = {now.idl, now.found, now.left, now.kept, now.overruled};
		if (cb != nullptr && (now.changes || has_pairs(now.kept) || has_pairs(now.overruled)))
			cb(&undone, arg);
	}
}

// One try. OSTRELX_CONFLICT: somebody was faster, or, if *is_final, there is a conflict that needs force.
ostrelx_error_t try_take_back(ostrel_db_t db, const UndoRecord &record, uint64_t flags, Nows *nows, bool *is_final)
{
	for (const UndoObject &object : record.objects)
		if (ostrelx_error_t bad = read_now(db, object, nows))
			return bad;
	if (!was_carried_out(record, *nows)) {
		nows->clear(); // nothing to tell
		return OSTREL_SUCCESS;
	}
	struct ostrelx_batch batch;
	bool conflict = false;
	for (size_t i = 0; i < nows->size(); i++) {
		Now &now = (*nows)[i];
		if (int error = settle(record.objects[i], &now))
			return ostrel_errno2error(error);
		conflict = conflict || is_conflict(record.objects[i], now);
		if (ostrelx_error_t bad = add_step(record.objects[i], now, &batch))
			return bad;
	}
	*is_final = (flags & OSTRELX_ROLLBACK_FORCE) == 0 && conflict;
	if (*is_final)
		return OSTRELX_CONFLICT;
	if ((flags & OSTRELX_ROLLBACK_PLAN) != 0 || batch.items.step_count() == 0)
		return OSTREL_SUCCESS;
	return ostrelx_commit(db, &batch, nullptr);
}

} // namespace

ostrelx_error_t undo_take_back(
    ostrel_db_t db, const UndoRecord &record, uint64_t flags, ostrelx_undonecb_t *cb, void *arg)
{
	constexpr int tries_max = 100;
	for (int i = 0; i < tries_max; i++) {
		Nows nows;
		bool is_final = false;
		const ostrelx_error_t result = try_take_back(db, record, flags, &nows, &is_final);
		if (result == OSTREL_SUCCESS || is_final)
			tell(nows, cb, arg);
		if (result != OSTRELX_CONFLICT || is_final)
			return result;
	}
	return OSTREL_NEEDS_RETRY;
}

// ---- Databases ----

namespace {

struct Store {
	const char *word;
	const ostrel_db_cmds_t *table;
};

const Store stores[] = {
    {"file", &ostrel_files_db_cmds},
    {"repo", &ostrel_cairn_db_cmds},
    {"hatch", &ostrel_hatches_db_cmds},
};

} // namespace

const char *undo_store_word(ostrel_db_t db)
{
	for (const Store &store : stores)
		if (db->db_cmds == *store.table)
			return store.word;
	return nullptr;
}

ostrelx_error_t undo_open_database(const UndoHead &head, ostrel_db_t *dbp)
{
	for (const Store &store : stores)
		if (strcmp(store.word, head.store) == 0)
			return ostrel_db_open(head.database, head.enclave, *store.table, head.db_flags, dbp);
	return OSTREL_INVALID_ARG;
}
