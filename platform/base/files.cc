// Small files and fixed paths, with system calls alone.
#include "base/files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/guards.h"

int meridon_path(const char *path, char (&buf)[PATH_MAX])
{
	const char *prefix = secure_getenv("MERIDON_ROOT");
	size_t prefix_len = prefix == nullptr ? 0 : strlen(prefix);
	size_t path_len = strlen(path);
	if (prefix_len + path_len + 2 > sizeof buf)
		return ENAMETOOLONG;
	if (prefix_len != 0)
		memcpy(buf, prefix, prefix_len);
	buf[prefix_len] = '/';
	memcpy(buf + prefix_len + 1, path, path_len + 1);
	return 0;
}

ssize_t meridon_read_all(int fd, char *buf, size_t size)
{
	size_t len = 0;
	while (len < size) {
		ssize_t got = read(fd, buf + len, size - len);
		if (got == 0) {
			buf[len] = '\0';
			return static_cast<ssize_t>(len);
		}
		if (got > 0)
			len += static_cast<size_t>(got);
		else if (errno != EINTR)
			return -1;
	}
	errno = EFBIG; // no room left for the NUL
	return -1;
}

ssize_t meridon_read_file(const char *path, char *buf, size_t size)
{
	Fd file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
	struct stat st;
	if (!file || fstat(file.get(), &st) == -1)
		return -1;
	if (!S_ISREG(st.st_mode)) {
		errno = EINVAL;
		return -1;
	}
	return meridon_read_all(file.get(), buf, size);
}

int meridon_write_all(int fd, const char *data, size_t len)
{
	while (len > 0) {
		ssize_t put = write(fd, data, len);
		if (put == -1 && errno == EINTR)
			continue;
		if (put <= 0)
			return put == 0 ? EIO : errno;
		data += put;
		len -= static_cast<size_t>(put);
	}
	return 0;
}

bool meridon_parse_number(std::string_view text, uint64_t max, uint64_t *value)
{
	if (text.empty() || (text.size() > 1 && text[0] == '0'))
		return false;
	uint64_t number = 0;
	for (char c : text) {
		if (c < '0' || c > '9')
			return false;
		uint64_t digit = static_cast<uint64_t>(c - '0');
		if (digit > max || number > (max - digit) / 10)
			return false;
		number = number * 10 + digit;
	}
	*value = number;
	return true;
}

size_t meridon_print_number(uint64_t value, char *buf)
{
	char digits[20];
	size_t count = 0;
	do {
		digits[count++] = static_cast<char>('0' + value % 10);
		value /= 10;
	} while (value != 0);
	for (size_t i = 0; i < count; i++)
		buf[i] = digits[count - 1 - i];
	buf[count] = '\0';
	return count;
}
