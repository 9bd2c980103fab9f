// The record in the file that a hatch is attached to, and what its state tells.
//
// Each attachment is a file of its own, renamed into place and locked by its server for as long as that lives. The
// record names the attachment by a random id, and so the socket beside it.
#ifndef MERIDON_HATCH_RECORD_H
#define MERIDON_HATCH_RECORD_H

#include <cstddef>
#include <string_view>
#include <sys/types.h>

namespace hatch {

inline constexpr size_t id_length = 32;
inline constexpr std::string_view record_start = "MERIDON-HATCH 1 ";
inline constexpr size_t record_size = record_start.size() + id_length + 1;
inline constexpr std::string_view socket_start = ".hatch-";

// The random name of an attachment: lower-case hexadecimal digits and a NUL.
struct Id {
	char text[id_length + 1];
};

// What makes an attachment that one and no other. The id alone wouldn't do: a record can be copied by anybody.
struct Attachment {
	dev_t device;
	ino_t inode;
	off_t mark; // some bits of the id

	bool operator==(const Attachment &) const = default;
};

// The name of a file beside the attached one: its socket, or with ".new" the record on its way.
struct SideName {
	char text[socket_start.size() + id_length + sizeof ".new"];
};
SideName socket_name(const Id &id);
SideName draft_name(const Id &id);

// Errors: 0, or an errno value.
int new_id(Id *id);
int write_record(int fd, const Id &id);

// Reads bytes as a record. Whatever isn't exactly one is none.
bool parse_record(std::string_view bytes, Id *id);
// Reads the record of an open file, whatever its place.
bool read_record(int fd, Id *id);

// A descriptor that saw its server alive carries the attachment's mark: as the offset of the open file, which every
// open() begins with at 0, and by which nobody reads this file. So the record is read once for each open(), and the
// server's end shows on the descriptor as a revocation, while one that was opened later is that of a plain file.
off_t mark_of(const Id &id);
void set_mark(int fd, off_t mark);
bool has_mark(int fd);

struct Look {
	Attachment attachment;
	bool marked;
};

// Tells whether the descriptor is one of a file that holds a record and has its name still, and which one.
bool look_at(int fd, Look *look);
// Tells whether the descriptor is one of a file that holds a record, and whose name another file took.
bool was_replaced(int fd);

// The server's lock on its record, which dies with it. Nobody who may only read the file can pretend to hold it.
bool lock_record(int fd);
void unlock_record(int fd);
bool record_is_locked(int fd);

} // namespace hatch

#endif
