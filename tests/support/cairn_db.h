// A repository of a test's own at the system's path, and databases of it.
#ifndef TESTS_CAIRN_DB_H
#define TESTS_CAIRN_DB_H

#include <filesystem>
#include <string>

#include "libostrel_cairn.h"
#include "libostrel_impl.h"
#include "list_text.h"
#include "lists.h"
#include "repository.h"

inline constexpr const char *test_instance = "net/link:default";
inline constexpr const char *test_service = "net/link";

// Makes `place` what the platform's fixed paths lie below, with a daemon that has the service and the instance.
class CairnDaemon {
public:
	explicit CairnDaemon(const char *parent = "/dev/shm") : daemon(parent)
	{
		std::filesystem::create_directories(daemon.place.path("system/transient"));
		setenv("MERIDON_ROOT", daemon.place.directory().c_str(), 1);
		start();
		RepositoryClient maker(hatch());
		ready = maker.find() == RPY_ERROR_NONE;
	}
	CairnDaemon(const CairnDaemon &) = delete;
	CairnDaemon &operator=(const CairnDaemon &) = delete;
	~CairnDaemon() { unsetenv("MERIDON_ROOT"); }

	void start() { ready = daemon.start(hatch_name) == 0; }
	void restart()
	{
		daemon.kill();
		start();
	}
	std::string hatch() const { return daemon.hatch(hatch_name); }

	static constexpr const char *hatch_name = "system/transient/repository_hatch";
	Repository daemon;
	bool ready = false;
};

using CairnDb = Handle<struct ostrel_db, ostrel_db_close>;

inline CairnDb open_cairn(const char *name = test_instance, uint64_t flags = 0, enclaveid_t enclave = 0)
{
	CairnDb db;
	(void) ostrel_db_open(name, enclave, ostrel_cairn_db_cmds, flags, db.out());
	return db;
}

// "a/b" or "a/b:t/u", and after it what else belongs into the list: "a;object-db-name=x".
inline AttrList group_of(const std::string &text)
{
	const size_t end = text.find(';');
	const std::string paths = text.substr(0, end);
	const size_t colon = paths.find(':');
	std::string words;
	if (colon != 0)
		words = "object-pgname=" + paths.substr(0, colon);
	if (colon != std::string::npos)
		words += (words.empty() ? "object-pgtype=" : ";object-pgtype=") + paths.substr(colon + 1);
	if (end != std::string::npos)
		words += text.substr(end);
	return idl_of(words);
}

inline ostrel_error_t put(const CairnDb &db, const std::string &group, const std::string &props, uint64_t flags = 0)
{
	return ostrel_db_write(db.get(), group_of(group).get(), flags, props_of(props).get());
}
inline ostrel_error_t drop(const CairnDb &db, const std::string &group)
{
	return ostrel_db_remove(db.get(), group_of(group).get(), 0);
}
inline ostrel_error_t move(const CairnDb &db, const std::string &from, const std::string &to)
{
	return ostrel_db_rename(db.get(), group_of(from).get(), 0, group_of(to).get());
}

// What a read gives: "name:type|properties", or "? result".
inline std::string get(const CairnDb &db, const std::string &group)
{
	AttrList idl = group_of(group), props;
	if (ostrel_error_t result = ostrel_db_read(db.get(), idl.get(), 0, props.out()))
		return std::string("? ") + ostrel_strerror(result);
	char *name = nullptr, *type = nullptr;
	(void) ostrel_idlist2pginfo(idl.get(), &name, &type);
	return std::string(name) + ":" + type + "|" + text_of(props.get());
}

// The properties of a group with their types, as list_text() gives them.
inline std::string typed(const CairnDb &db, const std::string &group)
{
	AttrList props;
	ostrel_error_t result = ostrel_db_read(db.get(), group_of(group).get(), 0, props.out());
	return result == OSTREL_SUCCESS ? list_text(props.get()) : std::string("? ") + ostrel_strerror(result);
}

// The groups of a walk, "name:type name:type ".
inline std::string walk(const CairnDb &db, const std::string &type)
{
	std::string seen;
	auto note = [](ostrel_db_t, attrlist_t *idl, attrlist_t *, uint64_t, void *arg) {
		char *name = nullptr, *pgtype = nullptr;
		(void) ostrel_idlist2pginfo(idl, &name, &pgtype);
		*static_cast<std::string *>(arg) += std::string(name) + ":" + pgtype + " ";
		return 0;
	};
	ostrel_error_t result = ostrel_db_walk(db.get(), group_of(":" + type).get(), 0, note, nullptr, &seen, nullptr);
	return result == OSTREL_SUCCESS ? seen : std::string("? ") + ostrel_strerror(result);
}

// Its native resources. They are looked at while no operation runs, without their lock.
inline ostrel_rpy_resources_t *resources_of(const CairnDb &db) ASSERT_CAPABILITY(rpy_lock)
{
	MutexLock hold(db->db_privlock);
	return static_cast<ostrel_rpy_resources_t *>(ostrel_db_get_priv(db.get()));
}

// A daemon and a database of it.
class CairnTest : public testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(here.ready);
		db = open_cairn();
		ASSERT_TRUE(db);
	}

	CairnDaemon here;
	CairnDb db;
};

#endif
