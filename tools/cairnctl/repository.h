// The repository as the tool sees it: documents that are read from it and written to it. Failures are thrown.
#ifndef CAIRNCTL_REPOSITORY_H
#define CAIRNCTL_REPOSITORY_H

#include <optional>
#include <string>
#include <vector>

#include <base/guards.h>
#include <meridon/enclave.h>
#include <meridon/rpy.h>

#include "document.h"

using RpyHandle = Handle<rpy_handle_t, rpy_handle_destroy>;
using Scope = Handle<rpy_scope_t, rpy_scope_destroy>;
using Service = Handle<rpy_service_t, rpy_service_destroy>;
using Instance = Handle<rpy_instance_t, rpy_instance_destroy>;
using Snapshot = Handle<rpy_snapshot_t, rpy_snapshot_destroy>;
using Group = Handle<rpy_propertygroup_t, rpy_pg_destroy>;
using Property = Handle<rpy_property_t, rpy_property_destroy>;
using Value = Handle<rpy_value_t, rpy_value_destroy>;
using Iter = Handle<rpy_iter_t, rpy_iter_destroy>;
using Transaction = Handle<rpy_transaction_t, rpy_transaction_destroy>;

// Throws what rpy_error() says about `doing`.
[[noreturn]] void fail(const std::string &doing);

// A service, or an instance of it.
struct Location {
	std::string locator;
	std::string name; // the last part of the locator: a service's whole name, or an instance's
	Service service;  // empty where an instance was listed
	Instance instance;
	bool is_instance = false;
};

class Repository {
public:
	// Binds to the daemon at this hatch, or to that of the enclave; without either to the system's.
	Repository(const std::string &hatch, enclaveid_t enclave);

	Location find(const std::string &locator);
	bool exists(const std::string &locator);
	// Makes what is missing of it. False if nothing was.
	bool add(const std::string &locator);
	void remove(const std::string &locator, bool recursive);
	// Listings. What they return may be removed before it is used: its use fails with Exit::not_found, and never reaches
	// another thing of the same name.
	std::vector<Location> services();
	std::vector<Location> instances(const Location &service);
	std::vector<std::string> snapshots(const Location &location);
	Snapshot snapshot(const Location &location, const std::string &name);

	// The groups of a location, or of a snapshot of it, as a document. A snapshot's groups are of one time; a location's
	// have no gaps where others replaced some meanwhile. Fails with Exit::busy if they change too fast for that.
	Json groups(const Location &location);
	Json groups(const Location &location, const std::string &snapshot_name);
	// Writes groups of a document below a location.
	void write(const Location &location, const Json &groups);
	// Removes all groups of a location.
	void clear(const Location &location);
	// Removes the groups of a document that lie directly below the location.
	void remove_groups(const Location &location, const Json &groups);

	rpy_handle_t *handle() const { return handle_.get(); }

private:
	template <typename Start>
	Json whole_tree(const std::string &where, Start start);
	std::optional<Json> groups_of(rpy_iter_t *iter, const std::string &where, int depth);
	Json properties_of(rpy_propertygroup_t *group);
	void write_group(const Location &location, rpy_propertygroup_t *parent, const Json &group);
	void write_properties(rpy_propertygroup_t *group, const Json &properties, const std::string &doing);

	RpyHandle handle_;
	Scope scope_;
};

#endif
