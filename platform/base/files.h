// Small files and fixed paths. Everything here makes system calls and nothing else: no allocation, no lock, no stream,
// so a forked child may use it.
#ifndef MERIDON_BASE_FILES_H
#define MERIDON_BASE_FILES_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <sys/types.h>

// Writes the place of a path that the layer fixes, such as "run/enclaves", into `buf`: the environment's MERIDON_ROOT,
// a slash, the path. The variable doesn't count in a process that gained privileges when it started.
// Errors: 0, or ENAMETOOLONG.
int meridon_path(const char *path, char (&buf)[PATH_MAX]);

// Reads what is left of a file into `buf`, and adds a NUL.
// Errors: the length, or -1 with errno; EFBIG if it doesn't fit.
ssize_t meridon_read_all(int fd, char *buf, size_t size);

// The same for a path, which must name a regular file: anything else is EINVAL, and nothing waits on it.
ssize_t meridon_read_file(const char *path, char *buf, size_t size);

// Writes all of it. Errors: 0, or an errno value.
int meridon_write_all(int fd, const char *data, size_t len);

// A decimal number without sign, blank or leading zero, of at most `max`.
bool meridon_parse_number(std::string_view text, uint64_t max, uint64_t *value);

// Writes a number in decimal, and a NUL. `buf` has room for 21 bytes. Gives its length.
size_t meridon_print_number(uint64_t value, char *buf);

#endif
