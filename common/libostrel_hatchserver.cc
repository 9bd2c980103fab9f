// The hatch server: a database of this process, served to others. Divisions: a request; the answer; the server.
//
// A request passes, in this order: its lengths, its lists, its command, the caller's right to the operation, the right to leave
// the served database (if it does), and what an update needs for its audit record. Nothing of a request that fails one of
// these is carried out, and its answer doesn't depend on what the database holds.
//
// Requests run on the hatch's threads, several at a time. The database is the caller's, and has to outlive the hatch:
// ostrel_hatchserver_destroy() returns when no request runs any more.
#include "libostrel_hatches.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include <meridon/trail.h>

#include "base/guards.h"
#include "base/process_mark.h"
#include "libostrel_auth.h"
#include "libostrel_error.h"
#include "libostrel_handle.h"
#include "libostrel_hatches_live.h"
#include "libostrel_hatchserver_live.h"
#include "libostrel_hatchserver_rules.h"
#include "libostrel_objects.h"

namespace {

// ---- A request ----

struct Request {
	ostrel_db_t db;
	uint64_t flags;
	AttrList data;
	AttrList reply;
	AttrList ids;
	Handle<peercred_t, peercred_free> cred;
};

ostrel_error_t read_objects(Request &request)
{
	if (request.db->db_cmds->dbc_read == nullptr)
		return OSTREL_INVALID_ARG;
	Objects objs;
	ostrel_error_t result =
	    request.db->db_cmds->dbc_read(request.db, request.ids.get(), request.flags, objs.out(), objs.out_count());
	if (result != OSTREL_SUCCESS) {
		objs.forget();
		return result;
	}
	return ostrel_object_list_create(objs.count() > 0 ? &objs[0] : nullptr, objs.count(), request.reply.out());
}

ostrel_error_t write_object(Request &request)
{
	return ostrel_db_write(request.db, request.ids.get(), request.flags, request.data.get());
}

ostrel_error_t rename_object(Request &request)
{
	return ostrel_db_rename(request.db, request.ids.get(), request.flags, request.data.get());
}

ostrel_error_t remove_object(Request &request)
{
	return ostrel_db_remove(request.db, request.ids.get(), request.flags);
}

// The commands: who may give them, and what they do. The last two only ask for the authorization.
constexpr struct Command {
	ostrel_hatch_cmd_t cmd;
	ostrel_error_t (*check)(ostrel_db_t db, const peercred_t *cred);
	ostrel_error_t (*run)(Request &request);
} commands[] = {
    {OSTREL_HATCH_CMD_READ_REQ, ostrel_db_check_read_auth, read_objects},
    {OSTREL_HATCH_CMD_WRITE_REQ, ostrel_db_check_write_auth, write_object},
    {OSTREL_HATCH_CMD_RENAME_REQ, ostrel_db_check_write_auth, rename_object},
    {OSTREL_HATCH_CMD_REMOVE_REQ, ostrel_db_check_write_auth, remove_object},
    {OSTREL_HATCH_CMD_CHECK_READ_AUTH_REQ, ostrel_db_check_read_auth, nullptr},
    {OSTREL_HATCH_CMD_CHECK_WRITE_AUTH_REQ, ostrel_db_check_write_auth, nullptr},
};

const Command *find_command(ostrel_hatch_cmd_t cmd)
{
	for (const Command &command : commands) {
		if (command.cmd == cmd)
			return &command;
	}
	return nullptr;
}

ostrel_error_t carry_out(ostrel_hatch_cmd_t cmd, Request &request)
{
	const Command *command = find_command(cmd);
	if (command == nullptr)
		return OSTREL_INVALID_ARG;
	if (ostrel_error_t result = command->check(request.db, request.cred.get()))
		return result;
	if (command->run == nullptr)
		return OSTREL_SUCCESS;
	attrlist_t *newids = cmd == OSTREL_HATCH_CMD_RENAME_REQ ? request.data.get() : nullptr;
	if (!ostrel_request_stays(request.db, request.ids.get()) || !ostrel_request_stays(request.db, newids)) {
		if (ostrel_error_t result = ostrel_check_elsewhere_auth(request.cred.get()))
			return result;
	}
	ostrel_drop_own_enclave(request.db, request.ids.get());
	ostrel_drop_own_enclave(request.db, newids);
	if (cmd != OSTREL_HATCH_CMD_READ_REQ && !ostrel_may_update(request.cred.get(), request.ids.get()))
		return OSTREL_INVALID_ARG;
	return command->run(request);
}

// The bytes come from the client: nothing else of them is read before the lengths add up.
bool is_request(const ostrel_hatch_arg_t *head, size_t size)
{
	size_t said;
	return size >= sizeof(*head) && ostrel_hatch_block_size(head, &said) && said == size;
}

ostrel_error_t serve(ostrel_db_t db, const ostrel_hatch_arg_t *arg, size_t size, Request &request)
{
	if (ostrel_db_get_cmds(db) == nullptr || !is_request(arg, size))
		return OSTREL_INVALID_ARG;
	if (hatch_peercred(request.cred.out()) == -1)
		return ostrel_errno2error(errno);
	if (ostrel_error_t result = ostrel_read_lists_from_hatch_arg(arg, request.ids.out(), request.data.out()))
		return result;
	request.db = db;
	request.flags = arg->nda_flags;
	return carry_out(arg->nda_cmd, request);
}

// ---- The answer ----

// A plain value: hatch_return() leaves the handler by a jump, past all destructors.
struct Answer {
	ostrel_hatch_arg_t head;
	char *packed; // nda_datalen bytes, or NULL
};

// What a reply repeats of its request, as far as the request has it.
ostrel_hatch_arg_t echo_of(const ostrel_hatch_arg_t *arg, size_t size)
{
	ostrel_hatch_arg_t head = {};
	if (size >= sizeof(head.nda_cmd))
		head.nda_cmd = arg->nda_cmd;
	if (size >= sizeof(head))
		head.nda_flags = arg->nda_flags;
	return head;
}

// Carries a request out. When it returns, only the packed list is left to free.
__attribute__((noinline)) void make_answer(ostrel_db_t db, const ostrel_hatch_arg_t *arg, size_t size, Answer *answer)
{
	Request request = {};
	*answer = {echo_of(arg, size), nullptr};
	answer->head.nda_result = serve(db, arg, size, request);
	if (answer->head.nda_result != OSTREL_SUCCESS || !request.reply)
		return;
	size_t packed = 0;
	int error = attrlist_pack(request.reply.get(), &answer->packed, &packed, ATL_ENCODE_XDR, 0);
	answer->head.nda_result = ostrel_errno2error(error);
	answer->head.nda_datalen = error == 0 ? packed : 0;
}

// Longer answers are made in the thread's reply memory, not on its stack.
constexpr size_t stack_max = 65536;
constexpr size_t stack_alignment_bits = 16 * 8;

bool is_update(const char *arg, size_t size)
{
	ostrel_hatch_cmd_t cmd;
	if (size < sizeof(cmd))
		return false;
	memcpy(&cmd, arg, sizeof(cmd));
	return cmd == OSTREL_HATCH_CMD_WRITE_REQ || cmd == OSTREL_HATCH_CMD_RENAME_REQ ||
	       cmd == OSTREL_HATCH_CMD_REMOVE_REQ;
}

// Without a hub nobody waits for what a request changes.
void answer_request(ostrel_db_t db, Hub *hub, char *arg, size_t arg_size)
{
	Answer answer;
	if (hub != nullptr && !is_update(arg, arg_size))
		hub = nullptr;
	if (hub != nullptr)
		hub->begin_update();
	make_answer(db, reinterpret_cast<ostrel_hatch_arg_t *>(arg), arg_size, &answer);
	size_t size = sizeof(answer.head) + answer.head.nda_datalen;
	void *block =
	    size <= stack_max ? __builtin_alloca_with_align(size, stack_alignment_bits) : hatch_reply_memory(size);
	if (block == nullptr) {
		answer.head.nda_result = OSTREL_NO_MEMORY;
		answer.head.nda_datalen = 0;
		size = sizeof(answer.head);
		block = &answer.head;
	} else {
		memcpy(block, &answer.head, sizeof(answer.head));
	}
	if (answer.head.nda_datalen > 0)
		memcpy(static_cast<char *>(block) + sizeof(answer.head), answer.packed, answer.head.nda_datalen);
	free(answer.packed);
	if (hub != nullptr)
		hub->end_update();
	(void) hatch_return(static_cast<char *>(block), size, nullptr, 0); // on success it doesn't come back
}

} // namespace

void ostrel_hatch_handler(void *cookie, char *arg, size_t arg_size, hatch_desc_t *, unsigned int)
{
	answer_request(static_cast<ostrel_db_t>(cookie), nullptr, arg, arg_size);
}

// ---- The server ----

namespace {

// A database that is served: the cookie of both channels.
struct Served {
	explicit Served(ostrel_db_t which) : db(which), hub(which) {}

	ostrel_db_t db;
	Hub hub;
	int hatch = -1;
	Served *next = nullptr;
};

extern "C" void handle_request(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	auto *served = static_cast<Served *>(cookie);
	answer_request(served->db, &served->hub, arg, size);
}

extern "C" void handle_live_request(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	auto *served = static_cast<Served *>(cookie);
	ostrel_answer_live_request(served->db, served->hub, arg, size);
}

// What is served, by the hatch's number, since that is all that a server's end is told. A forked child serves nothing of it.
Mutex list_lock;
Served *list GUARDED_BY(list_lock);
ProcessMark list_process;

void enter_list()
{
	list_process.enter([]() NO_THREAD_SAFETY_ANALYSIS {
		list_lock.init();
		list = nullptr;
	});
}

// NULL: there is none with that number.
Served *take_served(int hatch)
{
	enter_list();
	MutexLock hold(list_lock);
	Served **link = &list;
	while (*link != nullptr && (*link)->hatch != hatch)
		link = &(*link)->next;
	Served *served = *link;
	if (served != nullptr)
		*link = served->next;
	return served;
}

void keep_served(Served *served)
{
	enter_list();
	MutexLock hold(list_lock);
	served->next = list;
	list = served;
}

// The directory of a hatch: its mode, and the user and group that own it.
constexpr mode_t directory_mode = 0755;
constexpr uid_t directory_owner = 16;
constexpr gid_t directory_group = 65;
constexpr mode_t file_mode_first = 0444;
constexpr mode_t file_mode = 0644;
constexpr size_t path_max = 1023; // the copy that the directory is taken from is cut there
constexpr size_t request_min = sizeof(ostrel_hatch_cmd_t);

// Whether only root and this process's user can change what is in a directory.
bool is_trusted(const char *path)
{
	struct stat st;
	return stat(path, &st) == 0 && (st.st_uid == 0 || st.st_uid == geteuid()) &&
	       (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// A link in another user's directory isn't followed: that user would decide which directory changes its owner.
Fd open_directory(const char *path)
{
	char copy[path_max + 1];
	memcpy(copy, path, strlen(path) + 1);
	const int follow = is_trusted(dirname(copy)) ? 0 : O_NOFOLLOW;
	return Fd(open(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC | follow));
}

ostrel_error_t prepare_directory(const char *path)
{
	char copy[path_max + 1];
	const size_t length = strnlen(path, path_max);
	memcpy(copy, path, length);
	copy[length] = '\0';
	const char *directory = dirname(copy);
	if (directory == nullptr)
		return OSTREL_INVALID_ARG;
	Fd opened = open_directory(directory);
	if (!opened && errno == ENOENT && mkdir(directory, directory_mode) == 0)
		opened = open_directory(directory);
	if (!opened || fchmod(opened.get(), directory_mode) == -1 ||
	    fchown(opened.get(), directory_owner, directory_group) == -1)
		return ostrel_errno2error(errno);
	return OSTREL_SUCCESS;
}

// Makes sure that there is a file to attach to. One that is there already may be the directory owner's trap: if it were a link,
// or had a second name, another file's mode would be changed.
ostrel_error_t prepare_file(const char *path)
{
	constexpr int flags = O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
	struct stat st;
	Fd file(open(path, O_RDWR | O_CREAT | O_EXCL | flags, file_mode_first));
	if (!file && errno == EEXIST)
		file.reset(open(path, O_RDONLY | flags));
	if (!file || fstat(file.get(), &st) == -1)
		return ostrel_errno2error(errno);
	if (!S_ISREG(st.st_mode) || st.st_nlink != 1)
		return OSTREL_INVALID_ARG;
	return fchmod(file.get(), file_mode) == -1 ? ostrel_errno2error(errno) : OSTREL_SUCCESS;
}

// A hatch that is revoked, unless it was handed over.
class NewHatch {
public:
	explicit NewHatch(int fd) : fd_(fd) {}
	NewHatch(const NewHatch &) = delete;
	NewHatch &operator=(const NewHatch &) = delete;
	~NewHatch()
	{
		if (fd_ != -1)
			(void) hatch_revoke(fd_); // it is one
	}
	int get() const { return fd_; }
	int release() { return std::exchange(fd_, -1); }

private:
	int fd_;
};

} // namespace

ostrel_error_t ostrel_hatchserver_create(
    const char *path, const char *read_auth, const char *write_auth, ostrel_db_t db, int *hatch_fd)
{
	CancellationWaits cancellation;
	if (db == nullptr || *ostrel_db_get_name(db) == '\0' || hatch_fd == nullptr)
		return OSTREL_INVALID_ARG;
	ostrel_db_set_read_auth(db, read_auth);
	ostrel_db_set_write_auth(db, write_auth);
	if (path == nullptr || *path == '\0') // the current directory would be made the place of hatches
		return OSTREL_INVALID_ARG;
	if (ostrel_error_t result = prepare_directory(path))
		return result;
	if (ostrel_error_t result = prepare_file(path))
		return result;

	// Given up after the hatch, which is revoked first.
	std::unique_ptr<Served> made(new (std::nothrow) Served(db));
	Served *served = made.get();
	if (served == nullptr)
		return OSTREL_NO_MEMORY;
	NewHatch hatch(hatch_create(handle_request, served, HATCH_REFUSE_DESC));
	if (hatch.get() == -1 || hatch_setparam(hatch.get(), HATCH_PARAM_DATA_MIN, request_min) == -1 ||
	    hatch_channel(hatch.get(), ostrel_live_channel, handle_live_request, served, HATCH_NEVER_WAITS) == -1)
		return ostrel_errno2error(errno);
	served->hatch = hatch.get();
	served->hub.serve_at(hatch.get());
	(void) fdetach(path); // what an older or dead server left there; there may be nothing
	if (fattach(hatch.get(), path) == -1)
		return ostrel_errno2error(errno);
	delete take_served(hatch.get()); // one that the program revoked by itself
	*hatch_fd = hatch.release();
	keep_served(made.release());
	// From now on there is an audit record of each update, also when clients have used up this process's descriptors.
	trl_keep_way();
	return OSTREL_SUCCESS;
}

void ostrel_hatchserver_destroy(const char *path, int hatch_fd)
{
	CancellationWaits cancellation;
	if (hatch_fd != -1) {
		Served *served = take_served(hatch_fd); // before the number can be another hatch's
		if (hatch_revoke(hatch_fd) == 0)
			delete served;
		else if (served != nullptr) // its handlers may run: the program revokes it by itself
			keep_served(served);
		trl_leave_way();
	}
	if (path != nullptr)
		(void) unlink(path);
}
