// Records: writing, reading, locking.
#include "hatch/record.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hatch {
namespace {

// Marks lie where every file system lets an offset be: below 16 TiB.
constexpr off_t mark_base = off_t{1} << 42;

bool is_mark(off_t offset)
{
	return offset >= mark_base && offset < 2 * mark_base;
}

bool is_hex(char c)
{
	return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

struct flock whole_file(short type)
{
	struct flock lock = {};
	lock.l_type = type;
	lock.l_whence = SEEK_SET;
	return lock;
}

} // namespace

SideName socket_name(const Id &id)
{
	SideName name;
	(void) snprintf(name.text, sizeof name.text, ".hatch-%s", id.text);
	return name;
}

SideName draft_name(const Id &id)
{
	SideName name;
	(void) snprintf(name.text, sizeof name.text, ".hatch-%s.new", id.text);
	return name;
}

int new_id(Id *id)
{
	unsigned char bytes[id_length / 2];
	if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes))
		return EAGAIN;
	for (size_t i = 0; i < sizeof bytes; i++)
		(void) snprintf(id->text + 2 * i, 3, "%02x", bytes[i]);
	return 0;
}

int write_record(int fd, const Id &id)
{
	char bytes[record_size + 1];
	(void) snprintf(bytes, sizeof bytes, "%s%s\n", record_start.data(), id.text);
	ssize_t put = pwrite(fd, bytes, record_size, 0);
	if (put == static_cast<ssize_t>(record_size))
		return 0;
	return put == -1 ? errno : ENOSPC;
}

bool parse_record(std::string_view bytes, Id *id)
{
	if (bytes.size() != record_size || !bytes.starts_with(record_start) || bytes.back() != '\n')
		return false;
	std::string_view digits = bytes.substr(record_start.size(), id_length);
	for (char digit : digits) {
		if (!is_hex(digit))
			return false;
	}
	memcpy(id->text, digits.data(), id_length);
	id->text[id_length] = '\0';
	return true;
}

bool read_record(int fd, Id *id)
{
	char bytes[record_size + 1]; // one more than a record has, to see whether there is more
	ssize_t got = pread(fd, bytes, sizeof bytes, 0);
	return got > 0 && parse_record({bytes, static_cast<size_t>(got)}, id);
}

off_t mark_of(const Id &id)
{
	char digits[12];
	memcpy(digits, id.text, sizeof digits - 1);
	digits[sizeof digits - 1] = '\0';
	return mark_base | static_cast<off_t>(strtoull(digits, nullptr, 16) & (mark_base - 1));
}

void set_mark(int fd, off_t mark)
{
	(void) lseek(fd, mark, SEEK_SET);
}

bool has_mark(int fd)
{
	return is_mark(lseek(fd, 0, SEEK_CUR));
}

bool read_state(int fd, RecordState *state)
{
	struct stat st;
	if (fstat(fd, &st) == -1 || !S_ISREG(st.st_mode) || st.st_nlink == 0 || st.st_size != off_t{record_size})
		return false;
	off_t offset = lseek(fd, 0, SEEK_CUR);
	state->marked = is_mark(offset);
	state->attachment = {st.st_dev, st.st_ino, offset};
	if (state->marked)
		return true;
	Id id;
	if (!read_record(fd, &id))
		return false;
	state->attachment.mark = mark_of(id);
	return true;
}

bool was_replaced(int fd)
{
	struct stat st;
	Id id;
	return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 0 && read_record(fd, &id);
}

bool lock_record(int fd)
{
	struct flock lock = whole_file(F_WRLCK);
	return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

void unlock_record(int fd)
{
	struct flock lock = whole_file(F_UNLCK);
	(void) fcntl(fd, F_OFD_SETLK, &lock);
}

bool record_is_locked(int fd)
{
	// As a reader would ask: readers' locks, which anybody can take, don't count.
	struct flock lock = whole_file(F_RDLCK);
	return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

} // namespace hatch
