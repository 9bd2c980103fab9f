// The capabilities of the calling thread, as a test sets it up and looks at them.
#ifndef TESTS_CAPABILITIES_H
#define TESTS_CAPABILITIES_H

#include <string>

// The sets in which a thread has the right to write audit records.
enum class CapSets { None, Permitted };

// Makes the calling thread one of user and group 1000 that has no capability but this one, in the sets given. For a child
// of root's.
void keep_audit_write(CapSets sets);

// The lines of all five sets in /proc.
std::string capability_sets();
// Whether the right to write audit records is in effect.
bool has_audit_write();

#endif
