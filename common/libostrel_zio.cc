// Files in another enclave: not there yet.
#include <cerrno>

#include "libostrel_impl.h"

int ostrel_zopen(const char *, int, mode_t, enclaveid_t, int *err)
{
	*err = ENOTSUP;
	return -1;
}

int ostrel_zrename(const char *, const char *, enclaveid_t)
{
	return ENOTSUP;
}

int ostrel_zunlink(const char *, enclaveid_t)
{
	return ENOTSUP;
}
