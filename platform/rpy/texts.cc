#include "rpy/texts.h"

#include <cstdlib>
#include <cstring>

#include "rpy/error.h"
#include "rpy/wire.h"

namespace rpy {

bool copy_text(std::string_view from, Text *to)
{
	char *copy = static_cast<char *>(::malloc(from.size() + 1));
	if (copy == nullptr)
		return false;
	if (!from.empty())
		memcpy(copy, from.data(), from.size());
	copy[from.size()] = '\0';
	to->reset(copy);
	return true;
}

ssize_t give_text(std::string_view text, char *buffer, size_t size)
{
	if (buffer == nullptr && size != 0)
		return fail(RPY_ERROR_INVALID_ARGUMENT);
	if (size > 0) {
		size_t copied = text.size() < size ? text.size() : size - 1;
		if (copied > 0)
			memcpy(buffer, text.data(), copied);
		buffer[copied] = '\0';
	}
	return static_cast<ssize_t>(text.size());
}

std::string_view name_of(const char *text)
{
	if (text == nullptr)
		return {};
	std::string_view name(text, strnlen(text, name_max));
	return is_name(name) ? name : std::string_view();
}

} // namespace rpy
