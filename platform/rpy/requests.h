// The requests of the repository's protocol, a row for each: what client and daemon have to know of it. What it asks for and what
// is answered stands at Op (wire.h).
#ifndef MERIDON_RPY_REQUESTS_H
#define MERIDON_RPY_REQUESTS_H

#include <iterator>

#include "rpy/wire.h"

namespace rpy {

struct Request {
	enum Trait : uint32_t {
		// Asked twice it does no more than asked once: a client whose call failed needn't know what became of it.
		repeatable = 1,
		// A client may send several in one read_batch.
		batchable = 2,
		// Its caller needs the right to modify: it changes something, or takes the store for long.
		privileged = 4,
	};
	const char *name;
	Op op;
	uint32_t traits;

	constexpr bool is(Trait trait) const { return (traits & trait) != 0; }
};

constexpr Request requests[] = {
    {"status", Op::status, Request::repeatable},
    {"decode", Op::decode, Request::repeatable},
    {"list_services", Op::list_services, Request::repeatable},
    {"list_instances", Op::list_instances, Request::repeatable},
    {"list_snapshots", Op::list_snapshots, Request::repeatable},
    {"add_service", Op::add_service, Request::privileged},
    {"add_instance", Op::add_instance, Request::privileged},
    {"delete_entity", Op::delete_entity, Request::privileged},
    {"get_group", Op::get_group, Request::repeatable | Request::batchable},
    {"read_group", Op::read_group, Request::repeatable | Request::batchable},
    {"list_groups", Op::list_groups, Request::repeatable},
    {"add_group", Op::add_group, Request::privileged},
    {"delete_group", Op::delete_group, Request::privileged},
    {"commit", Op::commit, Request::privileged},
    {"get_snapshot", Op::get_snapshot, Request::repeatable},
    {"take_snapshot", Op::take_snapshot, Request::privileged},
    {"delete_snapshot", Op::delete_snapshot, Request::privileged},
    {"revert_snapshot", Op::revert_snapshot, Request::privileged},
    {"verify", Op::verify, Request::repeatable | Request::privileged},
    {"backup", Op::backup, Request::repeatable | Request::privileged},
    {"read_batch", Op::read_batch, Request::repeatable},
    {"withdraw_group", Op::withdraw_group, Request::privileged},
    {"batch", Op::batch, Request::privileged},
};

constexpr const Request &request_of(Op op)
{
	return requests[static_cast<size_t>(op)];
}

// Whether the rows of a table are all the requests, in their order: so a request's number finds its row.
template <typename Row, size_t rows>
constexpr bool has_a_row_for_each_request(const Row (&table)[rows])
{
	for (size_t i = 0; i < rows; i++)
		if (table[i].op != static_cast<Op>(i))
			return false;
	return rows == static_cast<size_t>(Op::count_);
}
static_assert(has_a_row_for_each_request(requests));

constexpr bool are_sound(const Request (&table)[std::size(requests)])
{
	for (const Request &request : table) {
		// A batched read whose reply is missing is sent again; what anybody may ask for changes nothing.
		if (request.is(Request::batchable) && !request.is(Request::repeatable))
			return false;
		if (!request.is(Request::repeatable) && !request.is(Request::privileged))
			return false;
	}
	return true;
}
static_assert(are_sound(requests));

} // namespace rpy

#endif
