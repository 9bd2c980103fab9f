// A daemon without a process, and a client of it that may do anything.
#ifndef TESTS_WORLD_H
#define TESTS_WORLD_H

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "fake_store.h"
#include "requests.h"

namespace repository {

// A part of a request, as it travels.
template <typename Part>
void put_part(rpy::Writer *out, const Part &part)
{
	if constexpr (std::is_same_v<Part, uint64_t>)
		out->u64(part);
	else if constexpr (std::is_enum_v<Part> || std::is_integral_v<Part>)
		out->u32(static_cast<uint32_t>(part));
	else if constexpr (std::is_same_v<Part, rpy::Property>)
		put_property(out, part);
	else
		out->text(part);
}

class World {
public:
	explicit World(std::unique_ptr<FakeStore> its_store = std::make_unique<FakeStore>())
	    : store(its_store.get()), daemon("file", std::move(its_store))
	{
		service = id_in(ask(rpy::Op::add_service, "net/link"));
		instance = id_in(ask(rpy::Op::add_instance, service, "default"));
	}
	// The next daemon on a store that another world has used.
	World(std::unique_ptr<Store> its_store, FakeStore *fake) : store(fake), daemon("file", std::move(its_store))
	{
		EXPECT_FALSE(daemon.load());
		const std::string ids = ask(rpy::Op::decode, "net/link", "default");
		rpy::Reader in(ids);
		service = in.u64();
		instance = in.u64();
	}

	// What the daemon answers; empty for an error.
	template <typename... Parts>
	std::string ask(rpy::Op op, const Parts &...parts)
	{
		rpy::Writer request, reply;
		request.u32(rpy::magic);
		put_part(&request, op);
		(put_part(&request, parts), ...);
		const auto may = [] { return true; };
		answer(&daemon, request.view(), may, may, &reply);
		rpy::Reader in(reply.view());
		(void) in.u32();
		const auto its_error = static_cast<rpy_error_t>(in.u32());
		error = its_error;
		return its_error == RPY_ERROR_NONE ? std::string(in.here(), in.left()) : std::string();
	}
	static uint64_t id_in(const std::string &answer) { return rpy::Reader(answer).u64(); }

	uint64_t add_group(const std::string &name, uint64_t change = 0, uint32_t flags = RPY_PG_FLAG_TEMPORARY)
	{
		return id_in(ask(
		    rpy::Op::add_group, NodeKind::instance, instance, name, "t" + name.substr(0, 1), flags, change));
	}
	// The id and the version of a group.
	std::pair<uint64_t, uint64_t> find(const char *name)
	{
		const std::string group = ask(rpy::Op::get_group, NodeKind::instance, instance, name);
		rpy::Reader in(group);
		const uint64_t id = in.u64();
		return {id, in.u64()};
	}
	// One entry, with a number as the property's value, for whatever version the group has.
	void commit(const char *name, rpy::Change what, const char *property, uint64_t value)
	{
		const auto [id, version] = find(name);
		const std::string_view values(reinterpret_cast<const char *>(&value), sizeof(value));
		(void) ask(rpy::Op::commit, id, version, 1, what, rpy::Property{property, RPY_TYPE_COUNT, 1, values},
		    uint64_t{7});
	}
	// The last answer's error, the rows of the last commit, and the tree without the ids in it.
	std::string picture() { return std::to_string(error) + ' ' + std::to_string(store->rows_seen) + '\n' + tree(); }
	std::string tree()
	{
		std::string text;
		ReadLock hold(daemon.model.lock);
		for (Node *top : daemon.model.services())
			for (const Node *node : Model::tree(top)) {
				text += std::to_string(static_cast<int>(node->kind)) + node->name + " in " +
					(node->parent == nullptr ? "" : node->parent->name);
				if (node->version)
					text += *node->type + node->version->properties +
						std::to_string(node->version->holders);
				text += '\n';
			}
		return text;
	}

	FakeStore *const store; // NULL: another kind of store
	Daemon daemon;
	uint64_t service, instance;
	std::atomic<rpy_error_t> error{RPY_ERROR_NONE}; // of the last answer
};

} // namespace repository

#endif
