// Any bytes as a request to the server of a database. Each gets an answer that holds together, and the next honest request
// is served.
#include <cstdint>

#include "hatch_world.h"

namespace {

// A server whose database everybody may use, and a client's descriptor.
struct World {
	World()
	{
		demand(ostrel_db_open(place.path("db").c_str(), 0, ostrel_files_db_cmds, 0, &db) == OSTREL_SUCCESS);
		place.serve(ostrel_hatch_handler, db);
		client.reset(open(place.path("hatch").c_str(), O_RDONLY | O_CLOEXEC));
		demand(static_cast<bool>(client));
	}
	World(const World &) = delete;
	World &operator=(const World &) = delete;

	HatchWorld place; // the hatch ends after the client, and the database stays until the process ends
	ostrel_db_t db = nullptr;
	Fd client;
};

ostrel_hatch_arg_t ask(int client, const void *request, size_t size)
{
	alignas(16) static char room[1U << 20];
	hatch_arg_t arg = {static_cast<char *>(const_cast<void *>(request)), size, nullptr, 0, room, sizeof(room)};
	demand(hatch_call(client, &arg) == 0);
	ostrel_hatch_arg_t head;
	demand(arg.data_size >= sizeof(head));
	memcpy(&head, arg.data_ptr, sizeof(head));
	demand(head.nda_idlen == 0 && head.nda_enclaveid == 0 && head.nda_padding == 0);
	demand(arg.data_size == sizeof(head) + head.nda_datalen);
	demand(
	    head.nda_datalen == 0 || (head.nda_cmd == OSTREL_HATCH_CMD_READ_REQ && head.nda_result == OSTREL_SUCCESS));
	if (arg.rbuf != room)
		abort(); // nothing here is so large
	return head;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static World world;
	ostrel_hatch_arg_t sent = {};
	if (size > 0)
		memcpy(&sent, data, size < sizeof(sent) ? size : sizeof(sent));
	ostrel_hatch_arg_t head = ask(world.client.get(), data, size);
	demand(size < sizeof(sent.nda_cmd) || head.nda_cmd == sent.nda_cmd);
	if (size < sizeof(sent))
		demand(head.nda_result == OSTREL_INVALID_ARG);
	else
		demand(head.nda_flags == sent.nda_flags);

	ostrel_hatch_arg_t honest = {OSTREL_HATCH_CMD_CHECK_READ_AUTH_REQ, 0, OSTREL_SUCCESS, 0, 0, 0, 7};
	demand(ask(world.client.get(), &honest, sizeof(honest)).nda_result == OSTREL_SUCCESS);
	return 0;
}
