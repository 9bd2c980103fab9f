// The accessors for properties of one value, the text of a property list for trace points, and what the rooms share on
// lists and arrays. No state, no lock.
#include "libostrel_util.h"

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// ---- Properties of one value: stored as arrays, in errno values ----

// `lookup` finds the array, by a list and a name or by a pair.
template <typename T, typename Lookup, typename... Place>
static int get_one(T *valuep, Lookup lookup, Place... place)
{
	T *array = nullptr;
	uint_t count = 0;
	if (int error = lookup(place..., &array, &count))
		return error;
	if (count == 0)
		return ENOENT;
	if (count > 1 || valuep == nullptr)
		return EINVAL;
	*valuep = array[0];
	return 0;
}

int ostrel_atl_get_one_boolean(attrlist_t *list, const char *name, boolean_t *valuep)
{
	return get_one(valuep, attrlist_lookup_boolean_array, list, name);
}

int ostrel_atl_get_one_int32(attrlist_t *list, const char *name, int32_t *valuep)
{
	return get_one(valuep, attrlist_lookup_int32_array, list, name);
}

int ostrel_atl_get_one_int64(attrlist_t *list, const char *name, int64_t *valuep)
{
	return get_one(valuep, attrlist_lookup_int64_array, list, name);
}

int ostrel_atl_get_one_uint32(attrlist_t *list, const char *name, uint32_t *valuep)
{
	return get_one(valuep, attrlist_lookup_uint32_array, list, name);
}

int ostrel_atl_get_one_uint64(attrlist_t *list, const char *name, uint64_t *valuep)
{
	return get_one(valuep, attrlist_lookup_uint64_array, list, name);
}

int ostrel_atl_get_one_string(attrlist_t *list, const char *name, char **valuep)
{
	return get_one(valuep, attrlist_lookup_string_array, list, name);
}

int ostrel_atp_get_one_boolean(attrpair_t *pair, boolean_t *valuep)
{
	return get_one(valuep, attrpair_value_boolean_array, pair);
}

int ostrel_atp_get_one_int32(attrpair_t *pair, int32_t *valuep)
{
	return get_one(valuep, attrpair_value_int32_array, pair);
}

int ostrel_atp_get_one_int64(attrpair_t *pair, int64_t *valuep)
{
	return get_one(valuep, attrpair_value_int64_array, pair);
}

int ostrel_atp_get_one_uint32(attrpair_t *pair, uint32_t *valuep)
{
	return get_one(valuep, attrpair_value_uint32_array, pair);
}

int ostrel_atp_get_one_uint64(attrpair_t *pair, uint64_t *valuep)
{
	return get_one(valuep, attrpair_value_uint64_array, pair);
}

int ostrel_atp_get_one_string(attrpair_t *pair, char **valuep)
{
	return get_one(valuep, attrpair_value_string_array, pair);
}

int ostrel_atl_add_one_boolean(attrlist_t *list, const char *name, boolean_t value)
{
	return attrlist_add_boolean_array(list, name, &value, 1);
}

int ostrel_atl_add_one_int32(attrlist_t *list, const char *name, int32_t value)
{
	return attrlist_add_int32_array(list, name, &value, 1);
}

int ostrel_atl_add_one_int64(attrlist_t *list, const char *name, int64_t value)
{
	return attrlist_add_int64_array(list, name, &value, 1);
}

int ostrel_atl_add_one_uint32(attrlist_t *list, const char *name, uint32_t value)
{
	return attrlist_add_uint32_array(list, name, &value, 1);
}

int ostrel_atl_add_one_uint64(attrlist_t *list, const char *name, uint64_t value)
{
	return attrlist_add_uint64_array(list, name, &value, 1);
}

int ostrel_atl_add_one_string(attrlist_t *list, const char *name, const char *value)
{
	char *element = const_cast<char *>(value); // only read
	return attrlist_add_string_array(list, name, &element, 1);
}

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

// ---- Arrays and pairs ----

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
