// Objects and values: objects made and taken apart, the accessors for properties of one value, the text of a property
// list for trace points, and what the dispatcher and the back ends share on lists. No state, no lock.
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/guards.h"
#include "libostrel_impl.h"

// ---- Objects ----

ostrel_error_t ostrel_object_create(attrlist_t *idl, attrlist_t *props, attrlist_t **objp)
{
	AttrList obj;
	int error = objp == nullptr ? EINVAL : attrlist_alloc(obj.out(), ATL_UNIQUE_NAME, 0);
	if (error == 0)
		error = attrlist_add_attrlist(obj.get(), OSTREL_OBJECT_IDLIST, idl);
	if (error == 0 && props != nullptr)
		error = attrlist_add_attrlist(obj.get(), OSTREL_OBJECT_PROPS, props);
	if (error != 0)
		return ostrel_errno2error(error);
	*objp = obj.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_object_look(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp)
{
	int error = attrlist_lookup_attrlist(obj, OSTREL_OBJECT_IDLIST, idlp);
	if (error == 0)
		error = attrlist_lookup_attrlist(obj, OSTREL_OBJECT_PROPS, propsp);
	return ostrel_errno2error(error);
}

ostrel_error_t ostrel_object_get(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp)
{
	attrlist_t *idl;
	attrlist_t *props;

	if (idlp == nullptr && propsp == nullptr)
		return OSTREL_INVALID_ARG;
	if (idlp != nullptr)
		*idlp = nullptr;
	// Both have to be there, whichever is wanted.
	if (ostrel_error_t result = ostrel_object_look(obj, &idl, &props))
		return result;

	AttrList idl_copy;
	AttrList props_copy;
	int error = idlp == nullptr ? 0 : attrlist_dup(idl, idl_copy.out(), 0);
	if (error == 0 && propsp != nullptr)
		error = attrlist_dup(props, props_copy.out(), 0);
	if (error != 0)
		return ostrel_errno2error(error);
	if (idlp != nullptr)
		*idlp = idl_copy.release();
	if (propsp != nullptr)
		*propsp = props_copy.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_object_list_create(attrlist_t **objs, unsigned int count, attrlist_t **listp)
{
	AttrList list;

	if (listp == nullptr)
		return OSTREL_INVALID_ARG;
	*listp = nullptr;
	int error = attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0);
	if (error == 0)
		error = attrlist_add_uint64(list.get(), OSTREL_OBJECT_COUNT, count);
	if (error == 0)
		error = attrlist_add_attrlist_array(list.get(), OSTREL_OBJECT_LIST, objs, count);
	if (error != 0)
		return ostrel_errno2error(error);
	*listp = list.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_object_list_get_objects(attrlist_t *list, attrlist_t ***objsp, unsigned int *countp)
{
	attrlist_t **stored;

	if (countp == nullptr)
		return OSTREL_INVALID_ARG;
	// The length of the array is what counts; the list's own count may say something else.
	if (int error = attrlist_lookup_attrlist_array(list, OSTREL_OBJECT_LIST, &stored, countp))
		return ostrel_errno2error(error);
	if (objsp == nullptr)
		return OSTREL_SUCCESS;

	Objects objs;
	if (!objs.alloc(*countp))
		return OSTREL_NO_MEMORY;
	for (unsigned int i = 0; i < *countp; i++) {
		if (int error = attrlist_dup(stored[i], &objs[i], 0))
			return ostrel_errno2error(error);
	}
	*objsp = objs.release();
	return OSTREL_SUCCESS;
}

// ---- Properties of one value: stored as arrays, in errno values ----

template <typename T>
static int the_one(int error, const T *array, uint_t count, T *valuep)
{
	if (error != 0)
		return error;
	if (count == 0)
		return ENOENT;
	if (count > 1 || valuep == nullptr)
		return EINVAL;
	*valuep = array[0];
	return 0;
}

#define ONE_VALUE(type, word)                                                                                          \
	int ostrel_atl_get_one_##word(attrlist_t *list, const char *name, type *valuep)                                \
	{                                                                                                              \
		type *array = nullptr;                                                                                 \
		uint_t count = 0;                                                                                      \
		int error = attrlist_lookup_##word##_array(list, name, &array, &count);                                \
		return the_one(error, array, count, valuep);                                                           \
	}                                                                                                              \
	int ostrel_atp_get_one_##word(attrpair_t *pair, type *valuep)                                                  \
	{                                                                                                              \
		type *array = nullptr;                                                                                 \
		uint_t count = 0;                                                                                      \
		int error = attrpair_value_##word##_array(pair, &array, &count);                                       \
		return the_one(error, array, count, valuep);                                                           \
	}

#define ADD_ONE_VALUE(type, word)                                                                                      \
	int ostrel_atl_add_one_##word(attrlist_t *list, const char *name, type value)                                  \
	{                                                                                                              \
		return attrlist_add_##word##_array(list, name, &value, 1);                                             \
	}

ONE_VALUE(boolean_t, boolean)
ONE_VALUE(int32_t, int32)
ONE_VALUE(int64_t, int64)
ONE_VALUE(uint32_t, uint32)
ONE_VALUE(uint64_t, uint64)
ONE_VALUE(char *, string)

ADD_ONE_VALUE(boolean_t, boolean)
ADD_ONE_VALUE(int32_t, int32)
ADD_ONE_VALUE(int64_t, int64)
ADD_ONE_VALUE(uint32_t, uint32)
ADD_ONE_VALUE(uint64_t, uint64)

int ostrel_atl_add_one_string(attrlist_t *list, const char *name, const char *value)
{
	char *element = const_cast<char *>(value); // only read
	return attrlist_add_string_array(list, name, &element, 1);
}

#undef ONE_VALUE
#undef ADD_ONE_VALUE

// ---- The text of a list, for trace points ----

namespace {

// Text that ends where its buffer ends: what doesn't fit is cut, and said so.
class BoundedText {
public:
	BoundedText(char *buf, size_t size) : buf_(buf), size_(size) { buf_[0] = '\0'; }
	bool append(const char *text)
	{
		const size_t length = strlen(text);
		const size_t fits = length < size_ - used_ ? length : size_ - used_ - 1;
		memcpy(buf_ + used_, text, fits);
		used_ += fits;
		buf_[used_] = '\0';
		return fits == length;
	}

private:
	char *buf_;
	size_t size_;
	size_t used_ = 0;
};

constexpr size_t value_text_size = 512;

// Appends the elements, joined by commas, up to the first that doesn't fit. `word` gives the text of one.
template <typename T, typename Word>
void append_elements(BoundedText &text, const T *array, uint_t count, Word word)
{
	char buf[24]; // a 64-bit number with its sign
	for (uint_t i = 0; i < count; i++) {
		if ((i > 0 && !text.append(",")) || !text.append(word(array[i], buf)))
			return;
	}
}

void append_int64s(BoundedText &text, attrpair_t *pair)
{
	int64_t *array;
	uint_t count;
	if (attrpair_value_int64_array(pair, &array, &count) == 0)
		append_elements(text, array, count, [](int64_t value, char(&buf)[24]) {
			snprintf(buf, sizeof(buf), "%" PRId64, value);
			return static_cast<const char *>(buf);
		});
}

void append_uint64s(BoundedText &text, attrpair_t *pair)
{
	uint64_t *array;
	uint_t count;
	if (attrpair_value_uint64_array(pair, &array, &count) == 0)
		append_elements(text, array, count, [](uint64_t value, char(&buf)[24]) {
			snprintf(buf, sizeof(buf), "%" PRIu64, value);
			return static_cast<const char *>(buf);
		});
}

void append_strings(BoundedText &text, attrpair_t *pair)
{
	char **array;
	uint_t count;
	if (attrpair_value_string_array(pair, &array, &count) == 0)
		append_elements(text, array, count, [](const char *value, char(&)[24]) { return value; });
}

void append_booleans(BoundedText &text, attrpair_t *pair)
{
	boolean_t *array;
	uint_t count;
	if (attrpair_value_boolean_array(pair, &array, &count) == 0)
		append_elements(text, array, count,
		    [](boolean_t value, char(&)[24]) { return value != B_FALSE ? "true" : "false"; });
}

// The types that have a text; every other one is shown by its name alone.
constexpr struct {
	data_type_t type;
	void (*append)(BoundedText &text, attrpair_t *pair);
} value_texts[] = {
    {DATA_TYPE_INT64_ARRAY, append_int64s},
    {DATA_TYPE_UINT64_ARRAY, append_uint64s},
    {DATA_TYPE_STRING_ARRAY, append_strings},
    {DATA_TYPE_BOOLEAN_ARRAY, append_booleans},
};

} // namespace

char *ostrel_atl2str(attrlist_t *list, char *buf, size_t len)
{
	if (buf == nullptr || len == 0)
		return buf;
	BoundedText text(buf, len);
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(list, pair)) != nullptr;) {
		char value[value_text_size];
		BoundedText value_text(value, sizeof(value));
		for (const auto &row : value_texts) {
			if (row.type == attrpair_type(pair))
				row.append(value_text, pair);
		}
		if (!text.append(attrpair_name(pair)) || !text.append("=") || !text.append(value) || !text.append(";"))
			break;
	}
	return buf;
}

// ---- Shared by dispatcher and back ends ----

ostrel_error_t grow_buf(void **bufp, int *countp, size_t size)
{
	size_t bytes;

	if (*countp < 1 || size == 0)
		return OSTREL_INVALID_ARG;
	if (*countp > INT_MAX / 2 || __builtin_mul_overflow(static_cast<size_t>(*countp) * 2, size, &bytes))
		return OSTREL_NO_MEMORY;
	void *grown = realloc(*bufp, bytes);
	if (grown == nullptr)
		return OSTREL_NO_MEMORY;
	*bufp = grown;
	*countp *= 2;
	return OSTREL_SUCCESS;
}

ostrel_error_t atl_add_entry_val(attrlist_t *dst, const char *name, attrlist_t *src)
{
	attrpair_t *pair;
	int error = attrlist_lookup_attrpair(src, name, &pair);
	if (error == 0)
		error = attrlist_add_attrpair(dst, pair);
	return ostrel_errno2error(error);
}
