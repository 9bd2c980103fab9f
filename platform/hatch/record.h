// The record in the file that a hatch is attached to, and what its state means: docs/formats/hatch-wire.md.
//
// Each attachment is a file of its own, renamed into place, and locked by its server for as long as that lives. The record
// names the attachment, and with it the socket beside the file, by a random id.
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

// Identifies an attachment. The id alone wouldn't do: anybody can copy a record.
struct Attachment {
	dev_t device;
	ino_t inode;
	off_t mark; // some bits of the id

	bool operator==(const Attachment &) const = default;
};

// The name of a file beside the attached one: its socket, or with ".new" a record before its rename.
struct SideName {
	char text[socket_start.size() + id_length + sizeof ".new"];
};
SideName socket_name(const Id &id);
SideName draft_name(const Id &id);

// Errors: 0, or an errno value.
int new_id(Id *id);
int write_record(int fd, const Id &id);

// Reads bytes as a record. False for anything that isn't exactly one.
bool parse_record(std::string_view bytes, Id *id);
// Reads the record of an open file, whatever its offset.
bool read_record(int fd, Id *id);

// A descriptor that saw its server alive carries the attachment's mark. The mark is the offset of the open file: each open()
// begins with 0, and nobody reads this file by its offset. So the record is read once for each open(). When the server has
// ended, a marked descriptor is a revoked hatch, and one that was opened later is a plain file.
off_t mark_of(const Id &id);
void set_mark(int fd, off_t mark);
bool has_mark(int fd);

// What a descriptor of an attached file tells without a call to the server.
struct RecordState {
	Attachment attachment;
	bool marked;
};

// False unless the descriptor is one of a file that holds a record and still has its name.
bool read_state(int fd, RecordState *state);
// Whether the descriptor is one of a file that holds a record, and whose name another file took.
bool was_replaced(int fd);

// The server's lock on its record, which ends with the server. It is a write lock, which a user who may only read the file can't take.
bool lock_record(int fd);
void unlock_record(int fd);
bool record_is_locked(int fd);

} // namespace hatch

#endif
