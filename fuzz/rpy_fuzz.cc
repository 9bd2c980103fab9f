// Any replies to the repository's client library: the first byte says what is asked, the rest answers each call.
#include <cstdint>
#include <mutex>
#include <string>

#include "hatch_world.h"
#include "rpy/wire.h"

namespace {

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

// A server and a bound client that stay for all replies.
struct World {
	World()
	{
		place.serve(answer, &reply);
		handle = rpy_handle_create(RPY_CLIENT_VERSION);
		rpy_value_t *path = rpy_value_create(handle);
		demand(rpy_value_set_astring(path, place.path("hatch").c_str()) == 0);
		demand(rpy_handle_decorate(handle, "hatch_path", path) == 0 && rpy_handle_bind(handle) == 0);
		rpy_value_destroy(path);
		service = rpy_service_create(handle);
		instance = rpy_instance_create(handle);
		const uint32_t good[] = {rpy::magic, RPY_ERROR_NONE, 7, 0, 8, 0};
		reply.bytes.assign(reinterpret_cast<const char *>(good), sizeof(good));
		demand(rpy_handle_decode_locator(handle, "a:b", nullptr, service, instance, nullptr, nullptr, 0) == 0);
	}
	World(const World &) = delete;
	World &operator=(const World &) = delete;
	~World()
	{
		rpy_instance_destroy(instance);
		rpy_service_destroy(service);
		rpy_handle_destroy(handle);
	}

	Reply reply;
	HatchWorld place;
	rpy_handle_t *handle = nullptr;
	rpy_service_t *service = nullptr;
	rpy_instance_t *instance = nullptr;
};

// Everything that a group holds can be read.
void look(World *world, const rpy_propertygroup_t *pg)
{
	char name[RPY_NAME_MAX];
	demand(rpy_pg_get_name(pg, name, sizeof(name)) > 0 && rpy_pg_get_type(pg, name, sizeof(name)) > 0);
	rpy_iter_t *properties = rpy_iter_create(world->handle), *values = rpy_iter_create(world->handle);
	rpy_property_t *property = rpy_property_create(world->handle);
	rpy_value_t *value = rpy_value_create(world->handle);
	demand(rpy_iter_pg_properties(properties, pg) == 0);
	int step;
	while ((step = rpy_iter_next_property(properties, property)) == 1) {
		rpy_type_t type;
		demand(
		    rpy_property_get_name(property, name, sizeof(name)) > 0 && rpy_property_type(property, &type) == 0);
		demand(rpy_iter_property_values(values, property) == 0);
		int inner;
		while ((inner = rpy_iter_next_value(values, value)) == 1)
			demand(rpy_value_type(value, &type) == 0);
		demand(inner == 0);
	}
	demand(step == 0);
	rpy_value_destroy(value);
	rpy_property_destroy(property);
	rpy_iter_destroy(values);
	rpy_iter_destroy(properties);
}

void ask(World *world, uint8_t what)
{
	rpy_propertygroup_t *pg = rpy_pg_create(world->handle);
	rpy_iter_t *iter = rpy_iter_create(world->handle);
	rpy_snapshot_t *snapshot = rpy_snapshot_create(world->handle);
	rpy_status_t status;
	char *findings = nullptr;
	switch (what % 6) {
	case 0:
		if (rpy_instance_get_pg(world->instance, "g", pg) == 0)
			look(world, pg);
		break;
	case 1:
		if (rpy_iter_instance_pgs(iter, world->instance) == 0)
			while (rpy_iter_next_pg(iter, pg) == 1)
				look(world, pg);
		break;
	case 2:
		if (rpy_iter_instance_snapshots(iter, world->instance) == 0)
			while (rpy_iter_next_snapshot(iter, snapshot) == 1) {
			}
		break;
	case 3:
		(void) _rpy_status(world->handle, &status);
		break;
	case 4:
		if (_rpy_verify(world->handle, &findings) == 0)
			free(findings);
		break;
	default:
		(void) rpy_instance_get_snapshot(world->instance, "s", snapshot);
	}
	rpy_snapshot_destroy(snapshot);
	rpy_iter_destroy(iter);
	rpy_pg_destroy(pg);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static World world;
	if (size == 0)
		return 0;
	// A listing whose every page says that more follows would be fetched for ever if its ids rose for ever; they don't
	// here, since every page is the same.
	{
		std::lock_guard<std::mutex> hold(world.reply.lock);
		world.reply.bytes.assign(reinterpret_cast<const char *>(data) + 1, size - 1);
	}
	ask(&world, data[0]);
	return 0;
}
