// The exported calls on lists: tests of the arguments, and a step down.
//
// Divisions: walking; making; adding one pair; removing; looking up and values.
#include <cstdlib>
#include <type_traits>

#include "attrlist/list.h"
#include "attrlist/make.h"

using atl::Key;
using atl::Made;
using atl::TypeInfo;

namespace {

// Adds the pair that make(root, key) gives.
template <typename Make>
Made add(attrlist_t *list, const char *name, Make make)
{
	if (list == nullptr || name == nullptr)
		return {nullptr, EINVAL};
	if (int error = atl::reserve_index(list, 1))
		return {nullptr, error};
	size_t length = strlen(name);
	if (length > ATTRLIST_NAME_MAX)
		return {nullptr, EINVAL};
	Key key = atl::key_for(list, name, length);
	Made made = make(atl::root_of(list), key);
	if (made.pair != nullptr)
		atl::put_pair(list, key, made.pair);
	return made;
}

Made made_or_no_memory(attrpair_t *pair)
{
	return {pair, pair != nullptr ? 0 : ENOMEM};
}

int add_numbers(attrlist_t *list, const char *name, uint8_t type, const void *numbers, uint_t count)
{
	if (count > ATTRLIST_ELEMENTS_MAX || (numbers == nullptr && count > 0))
		return EINVAL;
	auto make = [&](attrlist_t *root, const Key &key) {
		return made_or_no_memory(atl::make_numbers(root, key, type, numbers, count));
	};
	return add(list, name, make).error;
}

Made add_lists(attrlist_t *list, const char *name, uint8_t type, attrlist_t *const *lists, uint_t count)
{
	return add(
	    list, name, [&](attrlist_t *, const Key &key) { return atl::make_lists(list, key, type, lists, count); });
}

// An array of pointers, of which none may be NULL.
template <typename T>
bool is_good_array(T *const *array, uint_t count)
{
	if (count > ATTRLIST_ELEMENTS_MAX || (array == nullptr && count > 0))
		return false;
	for (uint_t i = 0; i < count; i++)
		if (array[i] == nullptr)
			return false;
	return true;
}

attrpair_t *find_pair(attrlist_t *list, const char *name)
{
	return atl::find(list, atl::key_for(list, name, strlen(name))).pair;
}

// The pair of a name and type: 0, EINVAL, ENOENT.
int lookup(attrlist_t *list, const char *name, uint8_t type, const void *out, attrpair_t **pairp)
{
	if (list == nullptr || name == nullptr || out == nullptr)
		return EINVAL;
	*pairp = find_pair(list, name);
	return *pairp != nullptr && (*pairp)->type == type ? 0 : ENOENT;
}

// A value of a pair that has the right type. Pointers lead into the list.
template <typename T>
void give_value(const attrpair_t *pair, T *valuep)
{
	TypeInfo info = atl::info_of(pair->type);
	void *data = const_cast<void *>(atl::data_of(pair, info));
	if constexpr (std::is_pointer_v<T>)
		*valuep = static_cast<T>(data);
	else
		memcpy(valuep, data, sizeof(T));
}

template <typename T>
int pair_value(const attrpair_t *pair, uint8_t type, T *valuep)
{
	if (pair == nullptr || valuep == nullptr || pair->type != type)
		return EINVAL;
	give_value(pair, valuep);
	return 0;
}

template <typename T>
int pair_array(const attrpair_t *pair, uint8_t type, T **arrayp, uint_t *countp)
{
	if (countp == nullptr)
		return EINVAL;
	if (int error = pair_value(pair, type, arrayp))
		return error;
	*countp = pair->count;
	return 0;
}

template <typename T>
int lookup_value(attrlist_t *list, const char *name, uint8_t type, T *valuep)
{
	attrpair_t *pair;
	if (int error = lookup(list, name, type, valuep, &pair))
		return error;
	give_value(pair, valuep);
	return 0;
}

template <typename T>
int lookup_array(attrlist_t *list, const char *name, uint8_t type, T **arrayp, uint_t *countp)
{
	if (countp == nullptr)
		return EINVAL;
	attrpair_t *pair;
	if (int error = lookup(list, name, type, arrayp, &pair))
		return error;
	give_value(pair, arrayp);
	*countp = pair->count;
	return 0;
}

// Replaces the pairs of `dst` by those of `from`, one after the other; `from` shares the arena and is empty afterwards.
void splice(attrlist_t *dst, attrlist_t *from)
{
	attrpair_t *pair = atl::first_of(from);
	for (uint32_t left = from->count; left > 0; left--) {
		attrpair_t *next = pair->next;
		atl::put_pair(dst, atl::key_for(dst, atl::name_of(pair), pair->name_length), pair);
		pair = next;
	}
	atl::last_of(from) = nullptr;
	from->count = 0;
}

} // namespace

// ---- Walking ----

attrpair_t *attrlist_next_attrpair(attrlist_t *list, const attrpair_t *pair)
{
	if (list == nullptr)
		return nullptr;
	return pair == nullptr ? atl::first_of(list) : atl::after(list, pair);
}

char *attrpair_name(const attrpair_t *pair)
{
	return pair == nullptr ? nullptr : const_cast<char *>(atl::name_of(pair));
}

data_type_t attrpair_type(const attrpair_t *pair)
{
	return pair == nullptr ? DATA_TYPE_UNKNOWN : static_cast<data_type_t>(pair->type);
}

int attrlist_exists(attrlist_t *list, const char *name)
{
	return list != nullptr && name != nullptr && find_pair(list, name) != nullptr;
}

// ---- Making ----

int attrlist_alloc(attrlist_t **listp, uint_t flag, int zero)
{
	if (listp == nullptr || flag != ATL_UNIQUE_NAME || zero != 0)
		return EINVAL;
	auto *list = static_cast<attrlist_t *>(malloc(sizeof(attrlist_t) + sizeof(atl::Arena) + atl::first_room));
	if (list == nullptr)
		return ENOMEM;
	*list = {};
	list->level = 1;
	list->arena = reinterpret_cast<atl::Arena *>(list + 1);
	atl::arena_start(list->arena);
	*listp = list;
	return 0;
}

void attrlist_free(attrlist_t *list)
{
	if (list == nullptr || (list->flags & atl::LIST_NESTED) != 0)
		return;
	if (atl::Arena *arena = list->arena) {
		atl::arena_end(arena);
		if (static_cast<void *>(arena) != list + 1)
			free(arena);
	}
	free(list);
}

int attrlist_dup(attrlist_t *list, attrlist_t **outp, int zero)
{
	if (list == nullptr || outp == nullptr || zero != 0)
		return EINVAL;
	attrlist_t *copy = atl::copy_exactly(list);
	if (copy == nullptr)
		return ENOMEM;
	*outp = copy;
	return 0;
}

int attrlist_merge(attrlist_t *dst, attrlist_t *src, int flag)
{
	(void) flag; // pairs are replaced by name whatever it says
	if (dst == nullptr || src == nullptr)
		return EINVAL;
	if (dst == src)
		return 0;
	// All copies are made before the first one is put in place: a failure changes nothing, and either list may lie in
	// the other one.
	attrlist_t copies;
	atl::start_list(&copies, dst);
	copies.level = dst->level;
	int error = atl::copy_pairs(&copies, src);
	if (error == 0)
		error = atl::reserve_index(dst, copies.count);
	if (error == 0)
		splice(dst, &copies);
	atl::release_pairs(&copies);
	return error;
}

int attrlist_clear(attrlist_t *list)
{
	if (list == nullptr)
		return EINVAL;
	bool simple = (list->flags & atl::LIST_NESTED) == 0 && list->arena != nullptr;
	if (!simple) {
		atl::release_pairs(list);
		return 0;
	}
	atl::arena_reset(list->arena);
	list->flags = 0;
	list->last = nullptr;
	list->count = 0;
	return 0;
}

// ---- Adding one pair ----

int attrlist_add_string(attrlist_t *list, const char *name, const char *value)
{
	size_t length = value == nullptr ? 0 : strlen(value);
	if (value == nullptr || length > ATTRLIST_ELEMENTS_MAX)
		return EINVAL;
	auto make = [&](attrlist_t *root, const Key &key) {
		return made_or_no_memory(atl::make_text(root, key, value, length));
	};
	return add(list, name, make).error;
}

int attrlist_add_string_array(attrlist_t *list, const char *name, char *const *array, uint_t count)
{
	if (!is_good_array(array, count))
		return EINVAL;
	auto make = [&](attrlist_t *root, const Key &key) {
		return made_or_no_memory(atl::make_texts(root, key, array, count));
	};
	return add(list, name, make).error;
}

int attrlist_add_attrlist(attrlist_t *list, const char *name, attrlist_t *value)
{
	return value == nullptr ? EINVAL : add_lists(list, name, DATA_TYPE_ATTRLIST, &value, 1).error;
}

int attrlist_add_new_attrlist(attrlist_t *list, const char *name, attrlist_t **valuep)
{
	if (valuep == nullptr)
		return EINVAL;
	Made made = add_lists(list, name, DATA_TYPE_ATTRLIST, nullptr, 1);
	if (made.pair != nullptr)
		*valuep = made.pair->value.list;
	return made.error;
}

int attrlist_add_attrlist_array(attrlist_t *list, const char *name, attrlist_t *const *array, uint_t count)
{
	return is_good_array(array, count) ? add_lists(list, name, DATA_TYPE_ATTRLIST_ARRAY, array, count).error
					   : EINVAL;
}

int attrlist_add_attrpair(attrlist_t *list, const attrpair_t *pair)
{
	if (list == nullptr || pair == nullptr)
		return EINVAL;
	if (int error = atl::reserve_index(list, 1))
		return error;
	Made copy = atl::copy_pair(list, pair);
	if (copy.pair != nullptr)
		atl::put_pair(list, atl::key_for(list, atl::name_of(copy.pair), copy.pair->name_length), copy.pair);
	return copy.error;
}

// ---- Removing ----

int attrlist_remove(attrlist_t *list, const char *name, data_type_t type)
{
	if (list == nullptr || name == nullptr)
		return EINVAL;
	atl::Position at = atl::find(list, atl::key_for(list, name, strlen(name)));
	if (at.pair == nullptr || at.pair->type != type)
		return ENOENT;
	atl::remove_at(list, at);
	return 0;
}

int attrlist_remove_all(attrlist_t *list, const char *name)
{
	if (list == nullptr || name == nullptr)
		return EINVAL;
	atl::Position at = atl::find(list, atl::key_for(list, name, strlen(name)));
	if (at.pair == nullptr)
		return ENOENT;
	atl::remove_at(list, at);
	return 0;
}

// ---- Looking up and values ----

int attrlist_lookup_attrpair(attrlist_t *list, const char *name, attrpair_t **pairp)
{
	if (list == nullptr || name == nullptr || pairp == nullptr)
		return EINVAL;
	attrpair_t *pair = find_pair(list, name);
	if (pair == nullptr)
		return ENOENT;
	*pairp = pair;
	return 0;
}

// The three calls on single values, and the three on arrays, of each type.
#define ADD_SCALAR(word, T, type)                                                                                      \
	int attrlist_add_##word(attrlist_t *list, const char *name, T value)                                           \
	{                                                                                                              \
		return add_numbers(list, name, type, &value, 1);                                                       \
	}
#define GET_VALUE(word, T, type)                                                                                       \
	int attrlist_lookup_##word(attrlist_t *list, const char *name, T *valuep)                                      \
	{                                                                                                              \
		return lookup_value<T>(list, name, type, valuep);                                                      \
	}                                                                                                              \
	int attrpair_value_##word(const attrpair_t *pair, T *valuep)                                                   \
	{                                                                                                              \
		return pair_value<T>(pair, type, valuep);                                                              \
	}
#define ADD_ARRAY(word, T, type)                                                                                       \
	int attrlist_add_##word(attrlist_t *list, const char *name, const T *array, uint_t count)                      \
	{                                                                                                              \
		return add_numbers(list, name, type, array, count);                                                    \
	}
#define GET_ARRAY(word, T, type)                                                                                       \
	int attrlist_lookup_##word(attrlist_t *list, const char *name, T **arrayp, uint_t *countp)                     \
	{                                                                                                              \
		return lookup_array<T>(list, name, type, arrayp, countp);                                              \
	}                                                                                                              \
	int attrpair_value_##word(const attrpair_t *pair, T **arrayp, uint_t *countp)                                  \
	{                                                                                                              \
		return pair_array<T>(pair, type, arrayp, countp);                                                      \
	}
#define NUMBER_CALLS(word, T, type)                                                                                    \
	ADD_SCALAR(word, T, DATA_TYPE_##type)                                                                          \
	GET_VALUE(word, T, DATA_TYPE_##type)                                                                           \
	ADD_ARRAY(word##_array, T, DATA_TYPE_##type##_ARRAY)                                                           \
	GET_ARRAY(word##_array, T, DATA_TYPE_##type##_ARRAY)

NUMBER_CALLS(int32, int32_t, INT32)
NUMBER_CALLS(uint32, uint32_t, UINT32)
NUMBER_CALLS(int64, int64_t, INT64)
NUMBER_CALLS(uint64, uint64_t, UINT64)
ADD_SCALAR(boolean_value, boolean_t, DATA_TYPE_BOOLEAN_VALUE)
GET_VALUE(boolean_value, boolean_t, DATA_TYPE_BOOLEAN_VALUE)
ADD_ARRAY(boolean_array, boolean_t, DATA_TYPE_BOOLEAN_ARRAY)
GET_ARRAY(boolean_array, boolean_t, DATA_TYPE_BOOLEAN_ARRAY)
GET_VALUE(string, char *, DATA_TYPE_STRING)
GET_ARRAY(string_array, char *, DATA_TYPE_STRING_ARRAY)
GET_VALUE(attrlist, attrlist_t *, DATA_TYPE_ATTRLIST)
GET_ARRAY(attrlist_array, attrlist_t *, DATA_TYPE_ATTRLIST_ARRAY)
