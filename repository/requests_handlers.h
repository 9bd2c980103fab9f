// The handlers of requests, and what several of them need.
//
// A handler takes the rest of a request off `in`, refuses what isn't a whole request of its kind, and writes what follows the
// head of the reply. If it fails, what it wrote is taken back. It holds the model's lock no longer than it takes to copy
// or share what it found.
#ifndef REPOSITORY_REQUESTS_HANDLERS_H
#define REPOSITORY_REQUESTS_HANDLERS_H

#include <memory>
#include <string>

#include "daemon.h"
#include "rpy/wire.h"

namespace repository {

using Handler = rpy_error_t(Daemon *daemon, rpy::Reader *in, rpy::Writer *out);

// requests_read.cc
Handler get_status, decode, get_group, read_group, read_batch, get_snapshot, verify, backup;
// requests_list.cc
Handler list_services, list_instances, list_snapshots, list_groups;
// requests_update.cc
Handler add_service, add_instance, add_group, delete_entity, delete_group, withdraw_group, commit, take_snapshot,
    delete_snapshot, revert_snapshot, batch;

// A group as a reader found it. Versions never change, so that the reply is filled without the lock.
struct FoundGroup {
	uint64_t id = 0;
	uint32_t flags = 0;
	std::string name;
	const std::string *type = nullptr; // lives as long as the model
	std::shared_ptr<const Version> version;

	FoundGroup() = default;
	explicit FoundGroup(const Node *node)
	    : id(node->id), flags(node->flags), name(node->name), type(node->type), version(node->version)
	{}
};

// A found group, or under the lock a node, as it is written into a reply.
template <typename T>
rpy::Group wire_group(const T &group)
{
	return {group.id, group.version->id, group.flags, group.name, *group.type, group.version->properties};
}

// Whether the caller may have so much of the daemon's memory; it counts as the caller's then. Where no hatch called, there
// is no caller, and no limit.
bool may_use(size_t bytes);

// Makes room for so many more bytes of the reply. A reply larger than what lies on the stack lies in the hatch's memory, which
// counts as the caller's. False if the caller may not have more.
bool make_room(rpy::Writer *out, size_t more);

} // namespace repository

#endif
