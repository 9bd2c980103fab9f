/*
 * Channel 1 of a served database: batches, versions and waits. What travels has its page in docs/formats/hatch-live.md; the
 * block of channel 0 knows nothing of it.
 */
#ifndef LIBOSTREL_HATCHES_LIVE_H
#define LIBOSTREL_HATCHES_LIVE_H

#include <cstddef>
#include <cstdint>

#include "libostrel_backend.h"

constexpr uint32_t ostrel_live_channel = 1;

enum class LiveRequest : uint32_t {
	Hello = 1,   // what is offered
	Commit = 2,  // a batch, in its packed form
	Version = 3, // of the database
	Wait = 4     // for a position that isn't the one that is sent
};

// The head of a request, or of an answer. A packed list follows, or nothing.
struct LiveHead {
	uint32_t request; // of an answer: as in its request
	uint32_t result;  // an ostrel_error_t; 0 in a request
};
static_assert(sizeof(LiveHead) == 8);

// The keys of the lists.
constexpr char ostrel_live_offers[] = "offers";     // strings
constexpr char ostrel_live_kind[] = "kind";         // a string
constexpr char ostrel_live_failed[] = "failed";     // int32: the number of the item of a batch
constexpr char ostrel_live_version[] = "version";   // a string
constexpr char ostrel_live_position[] = "position"; // two uint64
constexpr char ostrel_live_blind[] = "blind";       // int32: why the server can't tell everything at present

// A place in what a server has told of: its start, which is random, and a counter.
struct LivePosition {
	uint64_t start;
	uint64_t count;

	bool operator==(const LivePosition &) const = default;
};

// Reads what a list has under that key. False: nothing of the kind.
bool ostrel_live_get_position(attrlist_t *list, LivePosition *position);
// Errors: 0, or an errno value
int ostrel_live_add_position(attrlist_t *list, const LivePosition &position);

// The slots of the client. Of a server that doesn't know the channel: OSTREL_NOTSUP.
ostrel_commitcmd_t ostrel_commit_batch_to_hatch;
ostrel_versioncmd_t ostrel_version_of_hatch;
ostrel_notifycmd_t ostrel_notify_of_hatch;

#endif
