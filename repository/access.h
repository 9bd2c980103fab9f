// Who may do what. To change something a caller needs to be root or the daemon's own user, or to hold the right cairn.modify.
// To read nobody needs a right, unless the rights file names cairn.read: then every other caller needs that one.
//
// Threads: those of the hatch. The caller is the one whose request the calling thread serves; without one the answer is no,
// except for reading that is open to all.
#ifndef REPOSITORY_ACCESS_H
#define REPOSITORY_ACCESS_H

namespace repository {

bool caller_may_read();
bool caller_may_modify();

} // namespace repository

#endif
