// Any bytes as a server's reply. A client must come out of it with a result and with lists that can be used, or with none.
#include <cstdint>
#include <mutex>
#include <string>

#include "hatch_world.h"

namespace {

// What the server answers. A call that a signal interrupts leaves its handler running, so that the bytes have a lock.
struct Reply {
	std::mutex lock;
	std::string bytes;
};

void answer(void *cookie, char *, size_t, hatch_desc_t *, unsigned int)
{
	auto *reply = static_cast<Reply *>(cookie);
	char copy[65536];
	size_t size;
	{
		std::lock_guard<std::mutex> hold(reply->lock);
		size = reply->bytes.copy(copy, sizeof(copy));
	}
	(void) hatch_return(copy, size, nullptr, 0);
}

// A server and a client that stay for all replies.
struct World {
	World()
	{
		place.serve(answer, &reply);
		demand(
		    ostrel_db_open(place.path("hatch").c_str(), 0, ostrel_hatches_db_cmds, 0, &db) == OSTREL_SUCCESS);
	}
	World(const World &) = delete;
	World &operator=(const World &) = delete;
	~World() { ostrel_db_close(db); }

	Reply reply;
	HatchWorld place;
	ostrel_db_t db = nullptr;
};

int look(ostrel_db_t, attrlist_t *ids, attrlist_t *props, uint64_t, void *arg)
{
	demand(ids != nullptr && props != nullptr);
	++*static_cast<int *>(arg);
	return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static World world;
	{
		std::lock_guard<std::mutex> hold(world.reply.lock);
		world.reply.bytes.assign(reinterpret_cast<const char *>(data), data == nullptr ? 0 : size);
	}
	int seen = 0;
	ostrel_error_t walked = ostrel_db_walk(world.db, nullptr, 0, look, nullptr, &seen, nullptr);
	demand(size >= sizeof(ostrel_hatch_arg_t) || walked != OSTREL_SUCCESS);

	AttrList ids, props;
	demand(ostrel_idlist_init(ids.out(), nullptr) == OSTREL_SUCCESS);
	demand(ostrel_idlist_add(ids.get(), "a", "1") == OSTREL_SUCCESS);
	ostrel_error_t found = ostrel_db_read(world.db, ids.get(), 0, props.out());
	demand(found != OSTREL_SUCCESS || props);
	// A server that asks for a later try gets one, from a thread that outlives this.
	ostrel_hatch_arg_t head = {};
	if (size > 0)
		memcpy(&head, data, size < sizeof(head) ? size : sizeof(head));
	if (head.nda_result != OSTREL_NEEDS_RETRY) {
		ostrel_error_t written = ostrel_db_write(world.db, ids.get(), 0, ids.get());
		demand(written != OSTREL_SUCCESS || size == 0 || size >= sizeof(head));
	}
	return 0;
}
