/*
 * Results: their texts, their conversion from and to errno values, and the one function through which a failure is
 * raised. The rule for errors stands at the head of libostrel_impl.h.
 */
#ifndef LIBOSTREL_ERROR_H
#define LIBOSTREL_ERROR_H

#include "libostrel.h"

struct ostrel_error_info {
	ostrel_error_t error_code;
	const char *error_desc; // in English; ostrel_strerror() translates
};
#define OSTREL_ERROR_COUNT 10
extern const struct ostrel_error_info ostrel_errors[OSTREL_ERROR_COUNT];

// Raises a failure: reports it to the trace point "seterror" and returns it. OSTREL_SUCCESS passes through silently.
ostrel_error_t ostrel_seterror_verbose(const char *file, int line, ostrel_error_t err);
#define SETERROR(err) ostrel_seterror_verbose(ostrel_source_name(__FILE__), __LINE__, (err))
#define SETERRNO(err) SETERROR(ostrel_errno2error(err))

// The name of a source without its folders, the same wherever and however it was compiled.
consteval const char *ostrel_source_name(const char *path)
{
	const char *name = path;
	for (; *path != '\0'; path++) {
		if (*path == '/')
			name = path + 1;
	}
	return name;
}

#endif
