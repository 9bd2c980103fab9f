// The attached file, seen from the server's side.
#ifndef MERIDON_HATCH_PLACE_H
#define MERIDON_HATCH_PLACE_H

#include "hatch/server.h"

namespace hatch {

// Puts a record in place of the file at `path`, with a listening socket beside it.
// Errors: 0, or an errno value; nothing is left behind then.
int take_place(const char *path, Place *place);

// Removes the socket, empties the file if it still holds the record, and gives the lock up.
void leave_place(Place *place);

// Tells whether the file still holds the record.
bool holds_place(const Place &place);

} // namespace hatch

#endif
