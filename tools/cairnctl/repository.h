// The repository as the tool sees it: documents that are read from it and written to it. Failures are thrown.
#ifndef CAIRNCTL_REPOSITORY_H
#define CAIRNCTL_REPOSITORY_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <meridon/rpy.h>

#include "document.h"

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
	std::string name; // the last part of the locator: a service's whole name, or an instance's
	Service service;  // empty where an instance was listed
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
	// Listings. What they gave may have gone by the time it is used, as Exit::not_found; never is it another of its name.
	std::vector<Place> services();
	std::vector<Place> instances(const Place &service);
	std::vector<std::string> snapshots(const Place &place);
	Snapshot snapshot(const Place &place, const std::string &name);

	// The groups of a place, or of a snapshot of it, as a document: a snapshot's are all of one time, a place's without
	// gaps where others replaced some meanwhile. Exit::busy if they change so fast that no such document can be had.
	Json groups(const Place &place);
	Json groups(const Place &place, const std::string &snapshot_name);
	// Writes groups of a document below a place.
	void write(const Place &place, const Json &groups);
	// Deletes all groups of a place.
	void clear(const Place &place);
	// Deletes the groups of a document that lie directly below the place.
	void remove_groups(const Place &place, const Json &groups);

	rpy_handle_t *handle() const { return handle_.get(); }

private:
	template <typename Start>
	Json whole_tree(const std::string &where, Start start);
	std::optional<Json> groups_of(rpy_iter_t *iter, const std::string &where, int depth);
	Json properties_of(rpy_propertygroup_t *group);
	void write_group(const Place &place, rpy_propertygroup_t *parent, const Json &group);
	void write_properties(rpy_propertygroup_t *group, const Json &properties, const std::string &doing);

	RpyHandle handle_;
	Scope scope_;
};

#endif
