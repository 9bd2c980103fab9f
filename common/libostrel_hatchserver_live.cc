// The requests of channel 1: batches, versions, waits.
//
// A request passes, in this order: its number, the caller's right, its list, the right to leave the served database (if a batch
// does), and what its steps need for their audit records. Nothing of a request that fails one of these is carried out.
#include "libostrel_hatchserver_live.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <meridon/hatch.h>

#include "libostrel_auth.h"
#include "libostrel_batch.h"
#include "libostrel_error.h"
#include "libostrel_handle.h"
#include "libostrel_hatchserver_rules.h"
#include "libostrel_more.h"

namespace {

struct Request {
	ostrel_db_t db;
	Hub &hub;
	const char *packed;
	size_t size; // of the list
	PeerCred cred;
	AttrList list;
	AttrList answer;
	bool parks = false;
	bool updates = false;
};

int begin_answer(Request &request)
{
	return attrlist_alloc(request.answer.out(), ATL_UNIQUE_NAME, 0);
}

// ---- Hello ----

const char *kind_of(ostrel_db_cmds_t cmds)
{
	const std::pair<ostrel_db_cmds_t, const char *> kinds[] = {{ostrel_files_db_cmds, "file"},
	    {ostrel_rawfiles_db_cmds, "raw"}, {ostrel_cairn_db_cmds, "repository"}, {ostrel_hatches_db_cmds, "hatch"}};
	for (const auto &[known, name] : kinds) {
		if (cmds == known)
			return name;
	}
	return "other";
}

ostrel_error_t say_hello(Request &request)
{
	ostrel_db_cmds_t cmds = ostrel_db_get_cmds(request.db);
	const std::pair<const char *, bool> all[] = {{"commit", cmds->dbc_commit != nullptr},
	    {"version", cmds->dbc_version != nullptr}, {"wait", cmds->dbc_notify != nullptr}};
	char *offers[std::size(all)];
	uint_t count = 0;
	for (const auto &[name, offered] : all) {
		if (offered)
			offers[count++] = const_cast<char *>(name); // it is only read
	}
	int error = begin_answer(request);
	if (error == 0)
		error = attrlist_add_string_array(request.answer.get(), ostrel_live_offers, offers, count);
	if (error == 0)
		error = attrlist_add_string(request.answer.get(), ostrel_live_kind, kind_of(cmds));
	return ostrel_errno2error(error);
}

// ---- Commit ----

template <typename Check>
bool all_of(const Batch &batch, Check check)
{
	for (size_t i = 0; i < batch.condition_count(); i++) {
		if (!check(batch.condition(i)))
			return false;
	}
	for (size_t i = 0; i < batch.step_count(); i++) {
		if (!check(batch.step(i)))
			return false;
	}
	return true;
}

attrlist_t *new_ids(const BatchItem &item)
{
	return item.kind == BatchKind::Rename ? item.list : nullptr;
}

// Memory for the batch, which holds what the list does.
ostrel_error_t charge_batch(const Request &request)
{
	attrlist_t **items;
	uint_t count = 0;
	(void) attrlist_lookup_attrlist_array(
	    request.list.get(), "items", &items, &count); // unpack() says what is wrong
	constexpr size_t for_each = sizeof(BatchItem) + 256;
	return hatch_charge(request.size + count * for_each) == -1 ? ostrel_errno2error(errno) : OSTREL_SUCCESS;
}

ostrel_error_t check_batch(const Request &request, const Batch &batch, int *failed)
{
	const bool stays = all_of(batch, [&](const BatchItem &item) {
		return ostrel_request_stays(request.db, item.idl) && ostrel_request_stays(request.db, new_ids(item));
	});
	if (!stays) {
		if (ostrel_error_t result = ostrel_check_elsewhere_auth(request.cred.get()))
			return result;
	}
	(void) all_of(batch, [&](const BatchItem &item) {
		ostrel_drop_own_enclave(request.db, item.idl);
		ostrel_drop_own_enclave(request.db, new_ids(item));
		return true;
	});
	for (size_t i = 0; i < batch.step_count(); i++) {
		if (!ostrel_may_update(request.cred.get(), batch.step(i).idl)) {
			*failed = static_cast<int>(batch.condition_count() + i);
			return OSTREL_INVALID_ARG;
		}
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t carry_out(Request &request, int *failed)
{
	Batch batch;
	if (!request.list)
		return OSTREL_INVALID_ARG;
	if (ostrel_error_t result = charge_batch(request))
		return result;
	if (ostrel_error_t result = batch.unpack(request.list.get()))
		return result;
	request.list.reset();
	if (ostrel_error_t result = check_batch(request, batch, failed))
		return result;
	request.updates = true;
	request.hub.begin_update();
	return ostrel_more.commit(request.db, batch, failed);
}

ostrel_error_t commit(Request &request)
{
	int failed = -1;
	const ostrel_error_t result = carry_out(request, &failed);
	if (failed != -1 && begin_answer(request) == 0) // without memory the number alone is missing
		(void) attrlist_add_int32(request.answer.get(), ostrel_live_failed, failed);
	return result;
}

// ---- Version and wait ----

ostrel_error_t give_version(Request &request)
{
	ObjectVersion version;
	if (ostrel_error_t result = ostrel_more.database_version(request.db, &version))
		return result;
	int error = begin_answer(request);
	if (error == 0)
		error = attrlist_add_string(request.answer.get(), ostrel_live_version, version.text);
	return ostrel_errno2error(error);
}

ostrel_error_t wait(Request &request)
{
	LivePosition seen;
	Told told;
	const bool has_seen = ostrel_live_get_position(request.list.get(), &seen);
	if (ostrel_error_t result = request.hub.wait(&request.cred, has_seen ? &seen : nullptr, &told, &request.parks))
		return result;
	return request.parks ? OSTREL_SUCCESS : ostrel_told_list(told, &request.answer);
}

constexpr struct Rule {
	LiveRequest request;
	bool waits; // for the store; a wait only for who its user is
	ostrel_error_t (*check)(ostrel_db_t db, const peercred_t *cred);
	ostrel_error_t (*run)(Request &request);
} rules[] = {
    {LiveRequest::Hello, false, nullptr, say_hello},
    {LiveRequest::Commit, true, ostrel_db_check_write_auth, commit},
    {LiveRequest::Version, true, ostrel_db_check_read_auth, give_version},
    {LiveRequest::Wait, false, ostrel_db_check_read_auth, wait},
};

ostrel_error_t serve_by(const Rule &rule, Request &request)
{
	if (hatch_peercred(request.cred.out()) == -1)
		return ostrel_errno2error(errno);
	// Root is found without a look anywhere that could take long.
	const bool looks_up = *ostrel_db_get_read_auth(request.db) != '\0' && peercred_getruid(request.cred.get()) != 0;
	if (rule.waits || looks_up)
		(void) hatch_will_wait(); // a handler calls it
	if (rule.check != nullptr) {
		if (ostrel_error_t result = rule.check(request.db, request.cred.get()))
			return result;
	}
	if (request.size > Batch::packed_max)
		return OSTREL_INVALID_ARG;
	if (request.size > 0) {
		if (int error = attrlist_unpack(request.packed, request.size, request.list.out(), 0))
			return ostrel_errno2error(error);
	}
	return rule.run(request);
}

ostrel_error_t serve(const LiveHead &head, Request &request)
{
	for (const Rule &rule : rules) {
		if (static_cast<uint32_t>(rule.request) == head.request)
			return serve_by(rule, request);
	}
	return OSTREL_NOTSUP;
}

// A plain value: hatch_return() and hatch_park() leave the handler by a jump, past all destructors. All answers are short.
struct Answer {
	LiveHead head;
	char packed[2048];
	size_t size;
	bool parks;
	bool updates;
};

void pack_answer(Request &request, Answer *answer)
{
	Heap<char> packed;
	size_t size = 0;
	const int error = attrlist_pack(request.answer.get(), packed.out(), &size, ATL_ENCODE_XDR, 0);
	if (error == 0 && size <= sizeof(answer->packed)) {
		memcpy(answer->packed, packed.get(), size);
		answer->size = size;
	} else if (answer->head.result == OSTREL_SUCCESS) {
		answer->head.result = OSTREL_NO_MEMORY;
	}
}

__attribute__((noinline)) void make_answer(ostrel_db_t db, Hub &hub, const char *arg, size_t size, Answer *answer)
{
	answer->head = {0, OSTREL_INVALID_ARG};
	answer->size = 0;
	answer->parks = answer->updates = false;
	if (size < sizeof(LiveHead))
		return;
	LiveHead head;
	memcpy(&head, arg, sizeof(head));
	answer->head.request = head.request;
	if (head.result != 0)
		return;
	Request request = {db, hub, arg + sizeof(head), size - sizeof(head), {}, {}, {}};
	answer->head.result = static_cast<uint32_t>(serve(head, request));
	answer->parks = request.parks;
	answer->updates = request.updates;
	if (request.answer)
		pack_answer(request, answer);
}

} // namespace

void ostrel_answer_live_request(ostrel_db_t db, Hub &hub, char *arg, size_t size)
{
	Answer answer;
	char block[sizeof(answer.head) + sizeof(answer.packed)];
	make_answer(db, hub, arg, size, &answer);
	if (answer.parks)
		(void) hatch_park(); // on success it doesn't come back; it has a ticket
	memcpy(block, &answer.head, sizeof(answer.head));
	memcpy(block + sizeof(answer.head), answer.packed, answer.size);
	if (answer.updates)
		hub.end_update();
	(void) hatch_return(block, sizeof(answer.head) + answer.size, nullptr, 0); // on success it doesn't come back
}
