// The audit trail on the kernel's audit: a session is a socket to it, an event one message of the kind that trusted
// programs send.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <meridon/trail.h>

#include "base/files.h"
#include "base/guards.h"
#include "base/process_mark.h"
#include "base/thread_safety.h"
#include "trail/libaudit.h"
#include "trail/reserve.h"

struct trl_session_data {
	const Libaudit *library;
	int audit;
	bool reserved; // it is the reserve, and goes back there
	int error;     // not 0: there is no way to the log, for this reason, and the session is for the watcher alone
	bool has_user;
	uid_t uid;
	gid_t gid;
};

namespace {

// The data comes first: who has it has the event.
struct Event {
	trl_event_data_t data;
	const trl_session_data_t *session;
	trl_event_t event;
};

constexpr struct {
	trl_event_t event;
	const char *op;
} events[] = {
    {TRL_ostrel_update, "ostrel_update"},
    {TRL_ostrel_remove, "ostrel_remove"},
};

const char *op_of(trl_event_t event)
{
	for (const auto &row : events) {
		if (row.event == event)
			return row.op;
	}
	return nullptr;
}

// Fields "name=value", one after the other as long as there is room.
class RecordText {
public:
	// A word of our own.
	void put(const char *name, const char *word)
	{
		begin(name);
		append(word, strlen(word));
	}
	void put(const char *name, int64_t number)
	{
		char digits[21];
		begin(name);
		if (number < 0)
			append("-", 1);
		const uint64_t size = number < 0 ? -static_cast<uint64_t>(number) : static_cast<uint64_t>(number);
		append(digits, meridon_print_number(size, digits));
	}
	// A text from outside.
	void put_untrusted(const char *name, const char *text)
	{
		text = text == nullptr ? "" : text;
		begin(name);
		if (is_plain(text))
			put_quoted(text);
		else
			put_hexadecimal(text);
	}
	// NULL if it didn't fit.
	const char *text() const { return fits_ ? buf_ : nullptr; }

private:
	// The kernel's own rule is blanks, double quotes and what isn't printable ASCII. Two more: the kernel puts the whole
	// message in single quotes, and programs that search for "exe=" or "uid=" don't care whether it is in quotes.
	static bool is_plain(const char *text)
	{
		for (; *text != '\0'; text++) {
			if (*text <= ' ' || *text > '~' || strchr("\"'=", *text) != nullptr)
				return false;
		}
		return true;
	}

	void put_quoted(const char *text)
	{
		append("\"", 1);
		append(text, strlen(text));
		append("\"", 1);
	}
	void put_hexadecimal(const char *text)
	{
		constexpr char digits[] = "0123456789ABCDEF";
		for (; *text != '\0' && fits_; text++) {
			const auto byte = static_cast<unsigned char>(*text);
			const char pair[] = {digits[byte >> 4], digits[byte & 15]};
			append(pair, sizeof(pair));
		}
	}
	void begin(const char *name)
	{
		append(" ", length_ > 0 ? 1 : 0);
		append(name, strlen(name));
		append("=", 1);
	}
	void append(const char *text, size_t length)
	{
		fits_ = fits_ && length <= TRL_TEXT_MAX - length_;
		if (!fits_)
			return;
		memcpy(buf_ + length_, text, length);
		length_ += length;
		buf_[length_] = '\0';
	}

	char buf_[TRL_TEXT_MAX + 1] = "";
	size_t length_ = 0;
	bool fits_ = true;
};

const trl_object_t &object_of(const Event &event)
{
	return event.event == TRL_ostrel_remove ? event.data.trl_ostrel_remove : event.data.trl_ostrel_update;
}

void describe(const Event &event, int status, int retval, RecordText &text)
{
	const trl_object_t &object = object_of(event);
	text.put("op", op_of(event.event));
	text.put("event", event.event);
	text.put_untrusted("parent_file", object.parent_file);
	text.put_untrusted("object_name", object.object_name);
	text.put("subj_uid", event.session->uid);
	text.put("subj_gid", event.session->gid);
	text.put("status", status);
	text.put("retval", retval);
}

int fail(int error)
{
	errno = error;
	return -1;
}

// ---- The watcher ----

Mutex watch_lock; // held while the watcher runs: taking it back waits for that
trl_watcher_t *watcher GUARDED_BY(watch_lock);
void *watch_cookie GUARDED_BY(watch_lock);
ProcessMark watch_process;     // a forked child has no watcher
std::atomic<bool> has_watcher; // of watch_process; read without the lock, which a running watcher holds

void renew_watch() NO_THREAD_SAFETY_ANALYSIS // no other thread has it yet
{
	watch_lock.init();
	watcher = nullptr;
	has_watcher = false;
}

bool is_watched()
{
	return watch_process.is_own() && has_watcher;
}

void tell_watcher(const Event &event, int status, int retval)
{
	if (!is_watched())
		return;
	CancellationWaits cancellation;
	MutexLock lock(watch_lock);
	if (watcher != nullptr)
		watcher(watch_cookie, event.event, &object_of(event), status, retval);
}

// Gives 0, or why there is no way to the log.
int open_log(trl_session_data_t *session)
{
	session->library = libaudit();
	session->audit = -1;
	if (session->library == nullptr)
		return ENOTSUP;
	session->audit = session->library->open();
	if (session->audit >= 0)
		return 0;
	const int error = errno;
	if (error == EMFILE || error == ENFILE)
		session->audit = trail::take_reserve();
	session->reserved = session->audit >= 0;
	return session->reserved ? 0 : error;
}

} // namespace

void trl_watch(trl_watcher_t *new_watcher, void *cookie)
{
	CancellationWaits cancellation;
	watch_process.enter(renew_watch);
	MutexLock lock(watch_lock);
	watcher = new_watcher;
	watch_cookie = cookie;
	has_watcher = new_watcher != nullptr;
}

// Without a way to the log the session fails here, but where a watcher listens: for that one it is made, and each event then
// fails with the reason.
int trl_start_session(trl_session_data_t **session, const void *imported, unsigned int flags)
{
	CancellationWaits cancellation;
	if (session == nullptr || imported != nullptr || flags != 0)
		return fail(EINVAL);
	Heap<trl_session_data_t> made(static_cast<trl_session_data_t *>(calloc(1, sizeof(trl_session_data_t))));
	if (!made)
		return fail(ENOMEM);
	made->error = open_log(made.get());
	if (made->error != 0 && !is_watched())
		return fail(made->error);
	*session = made.release();
	return 0;
}

int trl_set_user(
    trl_session_data_t *session, uid_t, gid_t, uid_t ruid, gid_t rgid, const trl_terminal_t *terminal, int mode)
{
	if (session == nullptr || terminal != nullptr || mode != TRL_NEW)
		return fail(EINVAL);
	session->uid = ruid;
	session->gid = rgid;
	session->has_user = true;
	return 0;
}

trl_event_data_t *trl_alloc_event(const trl_session_data_t *session, trl_event_t event)
{
	if (session == nullptr || op_of(event) == nullptr) {
		errno = EINVAL;
		return nullptr;
	}
	auto *made = static_cast<Event *>(calloc(1, sizeof(Event)));
	if (made == nullptr) {
		errno = ENOMEM;
		return nullptr;
	}
	made->session = session;
	made->event = event;
	return &made->data;
}

// The watcher is told even if there is no way to the log, and before the record is sent: it has seen the event whatever becomes
// of that. A record that doesn't fit is refused rather than cut: half a name would be another object's.
int trl_put_event(const trl_event_data_t *data, int status, int retval)
{
	CancellationWaits cancellation;
	const auto *event = reinterpret_cast<const Event *>(data);
	if (event == nullptr || !event->session->has_user)
		return fail(EINVAL);
	tell_watcher(*event, status, retval);
	if (event->session->error != 0)
		return fail(event->session->error);
	RecordText text;
	describe(*event, status, retval, text);
	if (text.text() == nullptr)
		return fail(EMSGSIZE);
	// The empty terminal is none; NULL would have the process's own looked up. It gives the message's number, and 0 or
	// less if there is no record: 0 with errno EPERM, say, for a caller without the privilege.
	errno = 0;
	if (event->session->library->log_user_message(event->session->audit, AUDIT_TRUSTED_APP, text.text(), nullptr,
		nullptr, "", status == TRL_SUCCESS ? 1 : 0) > 0)
		return 0;
	return fail(errno != 0 ? errno : ECONNREFUSED);
}

void trl_free_event(trl_event_data_t *event)
{
	free(event);
}

int trl_end_session(trl_session_data_t *session)
{
	CancellationWaits cancellation;
	if (session != nullptr && session->reserved)
		trail::give_reserve_back();
	else if (session != nullptr && session->audit >= 0)
		(void) close(session->audit);
	free(session);
	return 0;
}
