// The attached file, and the socket beside it, from the server's side: docs/formats/hatch-wire.md, "The attached file".
#ifndef MERIDON_HATCH_ATTACH_POINT_H
#define MERIDON_HATCH_ATTACH_POINT_H

#include "base/guards.h"
#include "hatch/record.h"

namespace hatch {

// Where a hatch is attached in the file system. All of it is empty while the hatch isn't attached.
struct AttachPoint {
	Fd directory;
	Fd record; // open and locked: the sign of life
	Fd listener;
	Id id;
};

// Puts a record in place of the file at `path`, with a listening socket beside it.
// Errors: 0, or an errno value; nothing is left then.
int attach_to(const char *path, AttachPoint *point);

// Removes the socket, empties the file if it still holds the record, and gives the lock up.
void detach(AttachPoint *point);

// Whether the file still holds the record.
bool is_attached(const AttachPoint &point);

} // namespace hatch

#endif
