// Any requests to the repository daemon, one after another, each with its length before it. The store here holds the daemon
// to what it wrote: a row that is made twice, taken away twice, or needed and missing ends the run.
#include <cstdint>
#include <map>

#include "hatch_world.h"
#include "requests.h"

namespace {

using namespace repository;

class StrictStore : public Store {
public:
	Failure open(const Loader &, uint64_t *next) override
	{
		*next = 2;
		return {};
	}
	Committed commit(const Rows &rows, uint64_t next) override
	{
		if (++commits_ % 7 == 0)
			return RPY_ERROR_NO_RESOURCES; // an update that fails must leave no trace
		for (const Row &row : rows)
			carry_out(row, next);
		std::map<uint64_t, int> holders;
		for (const auto &[id, node] : nodes_)
			holders[node.version]++;
		for (const auto &[id, ignored] : versions_)
			demand(holders.count(id) == 1); // nothing is kept that nobody holds
		return RPY_ERROR_NONE;
	}
	bool writable() override { return true; }

	struct Stored {
		uint64_t parent, version;
	};
	const std::map<uint64_t, Stored> &nodes() const { return nodes_; }

private:
	void carry_out(const Row &row, uint64_t next)
	{
		switch (row.what) {
		case Row::What::put_node:
			demand(row.id < next && (row.parent == 0 || nodes_.count(row.parent) == 1));
			demand(nodes_.emplace(row.id, Stored{row.parent, row.version}).second);
			break;
		case Row::What::set_version:
			demand(nodes_.count(row.id) == 1 && versions_.count(row.version) == 1);
			nodes_[row.id].version = row.version;
			break;
		case Row::What::delete_node:
			demand(nodes_.erase(row.id) == 1);
			for (const auto &[id, node] : nodes_)
				demand(node.parent != row.id);
			break;
		case Row::What::put_version:
			demand(row.id < next && rpy::are_properties(row.properties));
			demand(versions_.emplace(row.id, true).second);
			break;
		case Row::What::delete_version:
			demand(versions_.erase(row.id) == 1);
			break;
		}
	}

	std::map<uint64_t, Stored> nodes_;
	std::map<uint64_t, bool> versions_;
	int commits_ = 0;
};

bool always()
{
	return true;
}

// What is in memory and stays is what the store has.
void compare(Daemon &daemon, const StrictStore &store)
{
	ReadLock hold(daemon.model.lock);
	size_t kept = 0;
	for (Node *service : daemon.model.services())
		for (const Node *node : Model::tree(service)) {
			if (!node->stored())
				continue;
			kept++;
			auto found = store.nodes().find(node->id);
			demand(found != store.nodes().end());
			demand(found->second.parent == (node->parent == nullptr ? 0 : node->parent->id));
			demand(found->second.version == (node->version ? node->version->id : 0));
		}
	demand(kept == store.nodes().size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	auto owned = std::make_unique<StrictStore>();
	StrictStore *store = owned.get();
	Daemon daemon("fuzz", std::move(owned));
	demand(!daemon.load());
	rpy::Reader in(reinterpret_cast<const char *>(data), size);
	while (in.left() > 2) {
		auto low = static_cast<uint8_t>(in.bytes(1)[0]), high = static_cast<uint8_t>(in.bytes(1)[0]);
		size_t length = std::min<size_t>(low | static_cast<size_t>(high) << 8, in.left());
		std::string request(reinterpret_cast<const char *>(&rpy::magic), sizeof(rpy::magic));
		request += in.bytes(length);
		rpy::Writer reply;
		answer(&daemon, request, always, always, &reply);
		rpy::Reader out(reply.data(), reply.size());
		demand(reply.ok() && out.u32() == rpy::magic);
		uint32_t error = out.u32();
		demand(out.ok() && error >= RPY_ERROR_NONE && error <= RPY_ERROR_INTERNAL);
		demand(error == RPY_ERROR_NONE || out.done());
	}
	compare(daemon, *store);
	return 0;
}
