// Versions and batches: reading with a version, committing under conditions, and the loop of both.
//
// Divisions: results; versions; batches; modify.
#include <cerrno>
#include <cstring>
#include <new>

#include "base/guards.h"
#include "store.h"

// ---- Results ----

const char *ostrelx_strerror(ostrelx_error_t error)
{
	if (error == OSTRELX_CONFLICT)
		return "changed meanwhile";
	if (error == OSTRELX_NOTHING)
		return "no event at present";
	return ostrel_strerror(static_cast<ostrel_error_t>(error));
}

// ---- Versions ----

namespace {

// The one object of a read: copies of its lists.
struct Found {
	AttrList idl;
	AttrList props;
	bool again = false; // there is more than one
};

int keep_object(ostrel_db_t, attrlist_t *idl, attrlist_t *props, uint64_t, void *arg)
{
	Found *found = static_cast<Found *>(arg);
	found->again = static_cast<bool>(found->idl);
	if (found->again)
		return EINVAL;
	if (int error = attrlist_dup(idl, found->idl.out(), 0))
		return error;
	return attrlist_dup(props, found->props.out(), 0);
}

// As ostrel_db_read(), with the stored identifiers apart: a version is made of those, not of what the caller asked with.
ostrel_error_t read_one(ostrel_db_t db, attrlist_t *idl, uint64_t flags, Found *found)
{
	int error = 0;
	ostrel_error_t result = ostrel_db_walk(
	    db, idl, flags | OSTREL_FLAG_EXACT_MATCH | OSTREL_FLAG_WITH_PROPS, keep_object, nullptr, found, &error);
	if (result == OSTREL_WALK_HALTED)
		return ostrel_errno2error(error);
	if (result != OSTREL_SUCCESS)
		return result;
	return found->idl ? OSTREL_SUCCESS : OSTREL_NOT_FOUND;
}

} // namespace

ostrelx_error_t ostrelx_read(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, attrlist_t **props, char version[OSTRELX_VERSION_SIZE])
{
	if (db == nullptr || idl == nullptr || version == nullptr)
		return OSTREL_INVALID_ARG;
	Found found;
	ObjectVersion text;
	if (ostrel_error_t result = read_one(db, idl, flags, &found))
		return result;
	if (ostrel_error_t result = ostrel_version_of(found.idl.get(), found.props.get(), &text))
		return result;
	// The object was found, so the read succeeds even if the caller's list can't take all its identifiers.
	(void) attrlist_merge(idl, found.idl.get(), ATL_UNIQUE_NAME_TYPE);
	memcpy(version, text.text, sizeof(text.text));
	if (props != nullptr)
		*props = found.props.release();
	return OSTREL_SUCCESS;
}

ostrelx_error_t ostrelx_db_version(ostrel_db_t db, char version[OSTRELX_VERSION_SIZE])
{
	if (db == nullptr || version == nullptr)
		return OSTREL_INVALID_ARG;
	const struct ostrel_more *store = ostrelx_store_of(db);
	if (store == nullptr)
		return OSTREL_NOTSUP;
	ObjectVersion text;
	if (ostrel_error_t result = store->database_version(db, &text))
		return result;
	memcpy(version, text.text, sizeof(text.text));
	return OSTREL_SUCCESS;
}

// ---- Batches ----

ostrelx_error_t ostrelx_batch_create(ostrelx_batch_t *batchp)
{
	if (batchp == nullptr)
		return OSTREL_INVALID_ARG;
	auto *batch = new (std::nothrow) struct ostrelx_batch();
	if (batch == nullptr)
		return OSTREL_NO_MEMORY;
	*batchp = batch;
	return OSTREL_SUCCESS;
}

void ostrelx_batch_free(ostrelx_batch_t batch)
{
	delete batch;
}

ostrelx_error_t ostrelx_batch_expect(ostrelx_batch_t batch, attrlist_t *idl, const char *version)
{
	return batch != nullptr ? batch->items.expect(idl, version) : OSTREL_INVALID_ARG;
}

ostrelx_error_t ostrelx_batch_expect_db(ostrelx_batch_t batch, const char *version)
{
	return batch != nullptr ? batch->items.expect_database(version) : OSTREL_INVALID_ARG;
}

ostrelx_error_t ostrelx_batch_write(ostrelx_batch_t batch, attrlist_t *idl, uint64_t flags, attrlist_t *props)
{
	return batch != nullptr ? batch->items.write(idl, flags, props) : OSTREL_INVALID_ARG;
}

ostrelx_error_t ostrelx_batch_rename(ostrelx_batch_t batch, attrlist_t *idl, uint64_t flags, attrlist_t *newidl)
{
	return batch != nullptr ? batch->items.rename(idl, flags, newidl) : OSTREL_INVALID_ARG;
}

ostrelx_error_t ostrelx_batch_remove(ostrelx_batch_t batch, attrlist_t *idl, uint64_t flags)
{
	return batch != nullptr ? batch->items.remove(idl, flags) : OSTREL_INVALID_ARG;
}

ostrelx_error_t ostrelx_commit(ostrel_db_t db, ostrelx_batch_t batch, int *failed)
{
	int number = -1;
	if (failed != nullptr)
		*failed = -1;
	if (db == nullptr || batch == nullptr)
		return OSTREL_INVALID_ARG;
	const struct ostrel_more *store = ostrelx_store_of(db);
	if (store == nullptr)
		return OSTREL_NOTSUP;
	ostrel_error_t result = store->commit(db, batch->items, &number);
	if (failed != nullptr)
		*failed = number;
	return result;
}

// ---- Modify ----

namespace {

constexpr int tries_max = 100;

struct Change {
	ostrelx_changecb_t *change;
	void *arg;
	int *stopped;
};

// One try. *again: somebody else was faster.
ostrelx_error_t try_change(ostrel_db_t db, attrlist_t *idl, uint64_t flags, const Change &change, bool *again)
{
	AttrList props;
	char version[OSTRELX_VERSION_SIZE] = "";
	ostrelx_error_t result = ostrelx_read(db, idl, flags, props.out(), version);
	const bool exists = result == OSTREL_SUCCESS;
	if (!exists && result != OSTREL_NOT_FOUND)
		return result;
	if (int error = exists ? 0 : attrlist_alloc(props.out(), ATL_UNIQUE_NAME, 0))
		return ostrel_errno2error(error);

	Digest before;
	Digest after;
	if (ostrel_error_t bad = ostrel_digest_list(props.get(), &before))
		return bad;
	if (int stopped = change.change(idl, props.get(), exists ? B_TRUE : B_FALSE, change.arg)) {
		if (change.stopped != nullptr)
			*change.stopped = stopped;
		return OSTREL_WALK_HALTED;
	}
	if (ostrel_error_t bad = ostrel_digest_list(props.get(), &after))
		return bad;
	if (exists && before == after)
		return OSTREL_SUCCESS;

	struct ostrelx_batch batch;
	if (ostrel_error_t bad = batch.items.expect(idl, version))
		return bad;
	if (ostrel_error_t bad = batch.items.write(idl, flags, props.get()))
		return bad;
	result = ostrelx_commit(db, &batch, nullptr);
	*again = result == OSTRELX_CONFLICT;
	return result;
}

} // namespace

ostrelx_error_t ostrelx_modify(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, ostrelx_changecb_t *change, void *arg, int *stopped)
{
	if (db == nullptr || idl == nullptr || change == nullptr)
		return OSTREL_INVALID_ARG;
	const Change what = {change, arg, stopped};
	ostrelx_error_t result = OSTRELX_CONFLICT;
	for (int i = 0; i < tries_max; i++) {
		bool again = false;
		result = try_change(db, idl, flags, what, &again);
		if (!again)
			break;
	}
	return result;
}
