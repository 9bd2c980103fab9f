// Any bytes as a server's reply. A client must come out of it with a result and with lists that can be used, or with none.
#include <cstdint>

#include "hatch_world.h"

namespace {

struct Reply {
	const uint8_t *data;
	size_t size;
};

void answer(void *cookie, char *, size_t, hatch_desc_t *, unsigned int)
{
	auto *reply = static_cast<Reply *>(cookie);
	(void) hatch_return(reinterpret_cast<const char *>(reply->data), reply->size, nullptr, 0);
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

	Reply reply = {};
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
	world.reply = {data, size};
	int seen = 0;
	ostrel_error_t walked = ostrel_db_walk(world.db, nullptr, 0, look, nullptr, &seen, nullptr);
	demand(size >= sizeof(ostrel_hatch_arg_t) || walked != OSTREL_SUCCESS);

	AttrList ids, props;
	demand(ostrel_idlist_init(ids.out(), nullptr) == OSTREL_SUCCESS);
	demand(ostrel_idlist_add(ids.get(), "a", "1") == OSTREL_SUCCESS);
	ostrel_error_t found = ostrel_db_read(world.db, ids.get(), 0, props.out());
	demand(found != OSTREL_SUCCESS || (props && seen == 1));
	demand(ostrel_db_write(world.db, ids.get(), 0, ids.get()) != OSTREL_SUCCESS || size == 0 ||
	       size >= sizeof(ostrel_hatch_arg_t));
	return 0;
}
