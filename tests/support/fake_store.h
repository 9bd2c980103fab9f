// A store in memory that holds its callers to repository/store.h, and fails when a test says so.
#ifndef TESTS_FAKE_STORE_H
#define TESTS_FAKE_STORE_H

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>

#include "alloc_fault.h"
#include "store.h"

namespace repository {

// What any store holds, and which rows it takes.
struct StoreContent {
	struct Node {
		uint32_t kind;
		uint64_t parent, version;
		std::string name, type;
		bool operator==(const Node &) const = default;
	};
	std::map<uint64_t, std::string> versions;
	std::map<uint64_t, Node> nodes;
	std::set<std::tuple<uint64_t, uint32_t, std::string>> names; // of nodes, with their parent and kind
	uint64_t next = 2;
	bool operator==(const StoreContent &) const = default;

	// False: the row doesn't fit what is there, and a part of it may have been taken.
	bool take(const Row &row)
	{
		using What = Row::What;
		const auto node = nodes.find(row.id);
		if (row.what == What::put_version)
			return versions.emplace(row.id, row.properties).second;
		if (row.what == What::delete_version)
			return versions.erase(row.id) == 1;
		if (row.what == What::put_node)
			return (row.parent == 0 || nodes.count(row.parent) == 1) &&
			       names.emplace(row.parent, row.kind, row.name).second &&
			       nodes
				   .emplace(row.id, Node{row.kind, row.parent, row.version, std::string(row.name),
							std::string(row.type)})
				   .second;
		if (node == nodes.end())
			return false;
		if (row.what == What::set_version) {
			node->second.version = row.version;
			return true;
		}
		const auto child = names.lower_bound({row.id, 0, ""});
		if (child != names.end() && std::get<0>(*child) == row.id)
			return false;
		names.erase({node->second.parent, node->second.kind, node->second.name});
		nodes.erase(node);
		return true;
	}
	// All of them, or none.
	bool take(const Rows &rows, uint64_t its_next)
	{
		StoreContent after = *this;
		if (!std::all_of(rows.begin(), rows.end(), [&](const Row &row) { return after.take(row); }))
			return false;
		after.next = its_next;
		*this = std::move(after);
		return true;
	}
};

// What outlives a fake store.
struct FakeDisk {
	StoreContent content;
	int commits = 0;
	bool readonly = false;
};

class FakeStore : public Store {
public:
	explicit FakeStore(std::shared_ptr<FakeDisk> its_disk = std::make_shared<FakeDisk>())
	    : disk(std::move(its_disk))
	{}

	Failure open(const Loader &loader, uint64_t *next) override
	{
		for (const auto &[id, properties] : disk->content.versions)
			loader.version(id, properties);
		for (const auto &[id, node] : disk->content.nodes)
			if (!loader.node({Row::What::put_node, id, node.kind, node.parent, node.version, node.name,
				node.type, {}}))
				return {EIO, "a node doesn't fit"};
		*next = disk->content.next;
		commits_ = disk->commits;
		return {};
	}
	Committed commit(const Rows &rows, uint64_t next) override
	{
		const AllocFaultPause pause; // a fault is the caller's
		asked++;
		rows_seen = rows.size();
		if (disk->readonly)
			return RPY_ERROR_BACKEND_READONLY;
		Committed made = answers ? answers(rows) : RPY_ERROR_NONE;
		if (made.error != RPY_ERROR_NONE)
			return made;
		Rows given = rows;
		for (Row &row : given)
			for (uint64_t *id : {&row.id, &row.parent, &row.version})
				*id = made.id_of(*id);
		if (commits_ != disk->commits || !disk->content.take(given, next))
			return RPY_ERROR_INTERNAL;
		commits_ = ++disk->commits;
		return made;
	}
	bool writable() override { return !disk->readonly; }

	const std::shared_ptr<FakeDisk> disk;
	// What a commit comes to, and which ids it gives, if its rows fit.
	std::function<Committed(const Rows &rows)> answers;
	int asked = 0;        // commits, the failed ones included
	size_t rows_seen = 0; // of the last one

private:
	int commits_ = 0; // of the disk, when this store read it or wrote to it
};

} // namespace repository

#endif
