// How functions of the C interface report an error: -1 with errno. Inside the layer functions return errno values.
#ifndef MERIDON_BASE_FAIL_H
#define MERIDON_BASE_FAIL_H

#include <cerrno>

// 0 for no error; else sets errno and gives -1.
inline int fail_with(int error)
{
	if (error == 0)
		return 0;
	errno = error;
	return -1;
}

#endif
