// The repository as the tool sees it: documents that are read from it and written to it. Failures are thrown.
#ifndef CAIRNCTL_REPOSITORY_H
#define CAIRNCTL_REPOSITORY_H

#include <memory>
#include <string>
#include <vector>

#include <meridon/rpy.h>
#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

template <auto Destroy>
struct Destroyer {
	template <typename T>
	void operator()(T *object) const
	{
		Destroy(object);
	}
};
using RpyHandle = std::unique_ptr<rpy_handle_t, Destroyer<rpy_handle_destroy>>;
using Scope = std::unique_ptr<rpy_scope_t, Destroyer<rpy_scope_destroy>>;
using Service = std::unique_ptr<rpy_service_t, Destroyer<rpy_service_destroy>>;
using Instance = std::unique_ptr<rpy_instance_t, Destroyer<rpy_instance_destroy>>;
using Snapshot = std::unique_ptr<rpy_snapshot_t, Destroyer<rpy_snapshot_destroy>>;
using Group = std::unique_ptr<rpy_propertygroup_t, Destroyer<rpy_pg_destroy>>;
using Property = std::unique_ptr<rpy_property_t, Destroyer<rpy_property_destroy>>;
using Value = std::unique_ptr<rpy_value_t, Destroyer<rpy_value_destroy>>;
using Iter = std::unique_ptr<rpy_iter_t, Destroyer<rpy_iter_destroy>>;
using Transaction = std::unique_ptr<rpy_transaction_t, Destroyer<rpy_transaction_destroy>>;

// Throws what rpy_error() says about `doing`.
[[noreturn]] void fail(const std::string &doing);

// A service, or an instance of it.
struct Place {
	std::string locator;
	Service service;
	Instance instance;
	bool is_instance = false;
};

class Repository {
public:
	// Binds to the daemon; an empty path is the usual one.
	explicit Repository(const std::string &hatch);

	Place find(const std::string &locator);
	bool exists(const std::string &locator);
	// Makes what is missing of it. False if nothing was.
	bool add(const std::string &locator);
	void remove(const std::string &locator, bool recursive);
	std::vector<std::string> services();
	std::vector<std::string> instances(const std::string &service);
	std::vector<std::string> snapshots(const Place &place);
	Snapshot snapshot(const Place &place, const std::string &name);

	// The groups of a place, or of a snapshot of it, as a document.
	Json groups(const Place &place);
	Json groups(const Place &place, const std::string &snapshot_name);
	// Writes groups of a document below a place.
	void write(const Place &place, const Json &groups);
	// Deletes all groups of a place.
	void clear(const Place &place);

	rpy_handle_t *handle() const { return handle_.get(); }

private:
	Json groups_of(rpy_iter_t *iter);
	Json properties_of(rpy_propertygroup_t *group);
	void write_group(const Place &place, rpy_propertygroup_t *parent, const Json &group);
	void write_properties(rpy_propertygroup_t *group, const Json &properties, const std::string &doing);

	RpyHandle handle_;
	Scope scope_;
};

// The words of value types, and what a document may hold.
const char *type_word(rpy_type_t type);
// Refuses a document that isn't one of groups: where, and why.
void check_groups(const Json &groups, const std::string &where);

#endif
