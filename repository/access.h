// Who may do what: changes need root, the daemon's own user, or the right cairn.modify. Reads are open to every local user,
// unless the rights file grants cairn.read to somebody by name: then they need it.
#ifndef REPOSITORY_ACCESS_H
#define REPOSITORY_ACCESS_H

namespace repository {

bool caller_may_read();
bool caller_may_modify();

} // namespace repository

#endif
