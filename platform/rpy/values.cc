// Values: one typed thing, set by the caller or taken from a property.
#include "rpy/object.h"

#include "base/files.h"

using namespace rpy;

namespace {

bool is_set(const rpy_value_t *value)
{
	if (value == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT), false;
	return value->type != RPY_TYPE_INVALID || (fail(RPY_ERROR_NOT_SET), false);
}

bool has_type(const rpy_value_t *value, uint32_t type)
{
	return is_set(value) && (value->type == type || (fail(RPY_ERROR_TYPE_MISMATCH), false));
}

void set_number(rpy_value_t *value, uint32_t type, uint64_t number)
{
	if (value == nullptr)
		return;
	value->type = type;
	value->number = number;
}

// A decimal number, with a sign if it may have one.
bool parse_integer(std::string_view text, int64_t *number)
{
	bool negative = !text.empty() && text.front() == '-';
	uint64_t size;
	uint64_t most = negative ? static_cast<uint64_t>(INT64_MAX) + 1 : INT64_MAX;
	if (!meridon_parse_number(text.substr(negative ? 1 : 0), most, &size))
		return false;
	*number = static_cast<int64_t>(negative ? 0 - size : size);
	return true;
}

int set_number_from_text(rpy_value_t *value, uint32_t type, std::string_view text)
{
	uint64_t number = 0;
	int64_t integer = 0;
	bool good;
	switch (type) {
	case RPY_TYPE_BOOLEAN:
		number = text == "true" || text == "1";
		good = number != 0 || text == "false" || text == "0";
		break;
	case RPY_TYPE_COUNT:
		good = meridon_parse_number(text, UINT64_MAX, &number);
		break;
	default:
		good = parse_integer(text, &integer);
		number = static_cast<uint64_t>(integer);
	}
	if (!good)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	set_number(value, type, number);
	return 0;
}

} // namespace

rpy_value_t *rpy_value_create(rpy_handle_t *handle)
{
	return make_object<rpy_value_t>(handle);
}

void rpy_value_destroy(rpy_value_t *value)
{
	delete value;
}

int rpy_value_type(const rpy_value_t *value, rpy_type_t *type)
{
	if (!is_set(value))
		return -1;
	if (type == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	*type = static_cast<rpy_type_t>(value->type);
	return 0;
}

int rpy_value_get_boolean(const rpy_value_t *value, uint8_t *byte)
{
	if (!has_type(value, RPY_TYPE_BOOLEAN))
		return -1;
	if (byte == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	*byte = value->number != 0 ? 1 : 0;
	return 0;
}

int rpy_value_get_count(const rpy_value_t *value, uint64_t *number)
{
	if (!has_type(value, RPY_TYPE_COUNT))
		return -1;
	if (number == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	*number = value->number;
	return 0;
}

int rpy_value_get_integer(const rpy_value_t *value, int64_t *number)
{
	if (!has_type(value, RPY_TYPE_INTEGER))
		return -1;
	if (number == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	*number = static_cast<int64_t>(value->number);
	return 0;
}

ssize_t rpy_value_get_astring(const rpy_value_t *value, char *buffer, size_t size)
{
	return has_type(value, RPY_TYPE_ASTRING) ? give_text(value->view(), buffer, size) : -1;
}

ssize_t rpy_value_get_bytes(const rpy_value_t *value, void *buffer, size_t size)
{
	if (!is_set(value))
		return -1;
	if (is_number(value->type))
		return fail(RPY_ERROR_TYPE_MISMATCH);
	if (buffer == nullptr && size != 0)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	size_t copied = value->size < size ? value->size : size;
	if (copied > 0)
		memcpy(buffer, value->text.get(), copied);
	return static_cast<ssize_t>(value->size);
}

void rpy_value_set_boolean(rpy_value_t *value, uint8_t byte)
{
	set_number(value, RPY_TYPE_BOOLEAN, byte != 0 ? 1 : 0);
}
void rpy_value_set_count(rpy_value_t *value, uint64_t number)
{
	set_number(value, RPY_TYPE_COUNT, number);
}
void rpy_value_set_integer(rpy_value_t *value, int64_t number)
{
	set_number(value, RPY_TYPE_INTEGER, static_cast<uint64_t>(number));
}

int rpy_value_set_bytes(rpy_value_t *value, rpy_type_t type, const void *bytes, size_t size)
{
	auto number = static_cast<uint32_t>(type);
	if (value == nullptr || (bytes == nullptr && size != 0) || !is_type(number) || is_number(number) ||
	    size > UINT32_MAX || (type != RPY_TYPE_OPAQUE && size != 0 && memchr(bytes, '\0', size) != nullptr))
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	Text copy;
	if (!copy_text({static_cast<const char *>(bytes), size}, &copy))
		return fail(RPY_ERROR_NO_MEMORY);
	value->text = std::move(copy);
	value->size = size;
	value->type = number;
	return 0;
}

int rpy_value_set_astring(rpy_value_t *value, const char *text)
{
	return rpy_value_set_from_string(value, RPY_TYPE_ASTRING, text);
}

int rpy_value_set_from_string(rpy_value_t *value, rpy_type_t type, const char *text)
{
	if (value == nullptr || text == nullptr)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (is_number(static_cast<uint32_t>(type)))
		return set_number_from_text(value, static_cast<uint32_t>(type), text);
	return rpy_value_set_bytes(value, type, text, strlen(text));
}
