// The last error of a thread, and the texts of all errors.
#include "rpy/error.h"

#include <cstdint>

namespace rpy {
namespace {

thread_local rpy_error_t last_error = RPY_ERROR_NONE;
thread_local bool last_is_open = false;

constexpr struct {
	rpy_error_t error;
	const char *text;
} error_texts[] = {
    {RPY_ERROR_NONE, "no error"},
    {RPY_ERROR_NOT_BOUND, "the handle isn't bound to a repository"},
    {RPY_ERROR_NOT_SET, "the object is empty"},
    {RPY_ERROR_NOT_FOUND, "nothing of that name"},
    {RPY_ERROR_TYPE_MISMATCH, "another type"},
    {RPY_ERROR_IN_USE, "in use"},
    {RPY_ERROR_CONNECTION_BROKEN, "the repository daemon has gone"},
    {RPY_ERROR_INVALID_ARGUMENT, "an invalid argument"},
    {RPY_ERROR_NO_MEMORY, "out of memory"},
    {RPY_ERROR_CONSTRAINT_VIOLATED, "not possible for this object"},
    {RPY_ERROR_EXISTS, "exists already"},
    {RPY_ERROR_NO_SERVER, "no repository daemon serves there"},
    {RPY_ERROR_NO_RESOURCES, "out of room or descriptors"},
    {RPY_ERROR_PERMISSION_DENIED, "no permission"},
    {RPY_ERROR_BACKEND_ACCESS, "the store can't be reached"},
    {RPY_ERROR_HANDLE_MISMATCH, "objects of different handles"},
    {RPY_ERROR_HANDLE_DESTROYED, "the handle has gone"},
    {RPY_ERROR_VERSION_MISMATCH, "an unknown client version"},
    {RPY_ERROR_BACKEND_READONLY, "the store can't be written at present"},
    {RPY_ERROR_DELETED, "was deleted"},
    {RPY_ERROR_TEMPLATE_INVALID, "an invalid template"},
    {RPY_ERROR_CONFLICT, "a conflict"},
    {RPY_ERROR_CALLBACK_FAILED, "a callback failed"},
    {RPY_ERROR_INTERNAL, "the repository daemon couldn't do it"},
};

} // namespace

int fail(rpy_error_t error)
{
	last_error = error;
	last_is_open = false;
	return -1;
}

int fail_open(rpy_error_t error)
{
	(void) fail(error);
	last_is_open = true;
	return -1;
}

} // namespace rpy

using namespace rpy;

rpy_error_t rpy_error(void)
{
	return last_error;
}

const char *rpy_strerror(rpy_error_t error)
{
	for (const auto &entry : error_texts)
		if (entry.error == error)
			return entry.text;
	return "an unknown error";
}

int _rpy_is_open(void)
{
	return last_is_open ? 1 : 0;
}
