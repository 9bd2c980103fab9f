// Watches: a notifier says when to look, a walk reads, a differ finds what changed, a queue hands it out.
//
// A reading comes after the notifier was asked, and goes over the whole selection. So whatever changes during a reading makes the
// notifier tell again, and the next reading sees it. What was read and not handed out yet waits in the queue, packed: the next
// reading begins when that is empty.
//
// A reading that fails in its middle has noted objects in the differ that nobody was told of. Then everything is forgotten, and
// the next reading begins with RESET. One that fails before its first object, as in a store that can't be reached, leaves what
// is held. It is repeated each few seconds, whatever the notifier says: it may know nothing of what ended the failure.
//
// A notifier that is blind, and says so, is told as LOST, once. What can be read is handed out all the same.
//
// Divisions: begin; reading; handing out; the calls.
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "base/growing_array.h"
#include "base/guards.h"
#include "differ.h"
#include "store.h"

namespace {

constexpr int retry_seconds = 5;

struct Waiting {
	ostrelx_event_kind_t kind;
	char *idl; // packed, as the properties; NULL if the kind has none
	char *props;
	size_t idl_size;
	size_t props_size;
};

void free_waiting(Waiting &waiting)
{
	free(waiting.idl);
	free(waiting.props);
}

void end_notifier(Notifier *notifier)
{
	notifier->end();
}

int pack(attrlist_t *list, Heap<char> *bytes, size_t *size)
{
	return list == nullptr ? 0 : attrlist_pack(list, bytes->out(), size, ATL_ENCODE_XDR, 0);
}

int unpack(const char *bytes, size_t size, AttrList *list)
{
	return bytes == nullptr ? 0 : attrlist_unpack(bytes, size, list->out(), 0);
}

} // namespace

struct ostrelx_watch {
public:
	ostrelx_error_t begin(
	    ostrel_db_t db, const struct ostrel_more &store, attrlist_t *idl, uint64_t flags, const char *token);
	ostrelx_error_t next(ostrelx_event_t *event);
	int fd() const { return set_.get(); }

private:
	static constexpr uint64_t walk_flags = OSTREL_FLAG_EXACT_MATCH | OSTREL_FLAG_TEMPORARY;

	static int see(ostrel_db_t db, attrlist_t *idl, attrlist_t *props, uint64_t flags, void *watch);
	ostrelx_error_t note(attrlist_t *idl, attrlist_t *props);
	ostrelx_error_t add(ostrelx_event_kind_t kind, attrlist_t *idl, attrlist_t *props);
	ostrelx_error_t walk();
	ostrelx_error_t read_whole(bool reports);
	ostrelx_error_t read_all();
	ostrelx_error_t resume(bool *same);
	ostrelx_error_t begin_again();
	ostrelx_error_t read_contents(bool is_blind);
	void give_up_reading();
	void hand_out_bare(bool is_blind, ostrelx_event_t *event);
	ostrelx_error_t nothing();
	ostrelx_error_t report_lost(ostrelx_error_t error, ostrelx_event_t *event);
	ostrelx_error_t hand_out(ostrelx_event_t *event);
	ostrelx_error_t make_token();
	void empty_queue();
	void stay_readable(bool wanted);
	void retry_later(bool wanted);

	ostrel_db_t db_ = nullptr;
	AttrList idl_;
	uint64_t flags_ = 0;
	Handle<Notifier, end_notifier> notifier_;
	Fd set_;
	Fd more_;  // readable while next() has something by itself
	Fd retry_; // the timer of a reading that failed
	bool is_signalled_ = false;
	bool retries_ = false;
	pid_t owner_ = getpid();

	Differ differ_;
	GrowingArray<Waiting, free_waiting> queue_;
	size_t at_ = 0;        // in the queue
	bool reports_ = false; // the walk that runs fills the queue
	ostrelx_error_t walk_error_ = OSTREL_SUCCESS;

	bool is_fresh_ = true;                  // nothing was handed out, or all is to be forgotten
	bool is_due_ = true;                    // a reading is owed
	bool is_noted_ = false;                 // the reading that runs has changed the differ
	ostrelx_error_t lost_ = OSTREL_SUCCESS; // what the last LOST said, if no state has ended it
	ObjectVersion wanted_ = {};             // the token to resume by; empty: none
	ObjectVersion token_ = {};
	ObjectVersion version_ = {};
	AttrList event_idl_, event_props_;
};

// ---- Begin ----

ostrelx_error_t ostrelx_watch::begin(
    ostrel_db_t db, const struct ostrel_more &store, attrlist_t *idl, uint64_t flags, const char *token)
{
	db_ = db;
	flags_ = flags;
	if (idl != nullptr) {
		if (int error = attrlist_dup(idl, idl_.out(), 0))
			return ostrel_errno2error(error);
	}
	if (token != nullptr)
		memcpy(wanted_.text, token, strlen(token) + 1); // the caller looked at its length
	set_.reset(epoll_create1(EPOLL_CLOEXEC));
	more_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
	retry_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
	if (!set_ || !more_ || !retry_)
		return ostrel_errno2error(errno);
	Notifier *notifier;
	if (ostrel_error_t result = store.notify(db, idl, &notifier))
		return result;
	notifier_.reset(notifier);
	for (int part : {more_.get(), retry_.get(), notifier->fd()}) {
		struct epoll_event event = {};
		event.events = EPOLLIN;
		if (epoll_ctl(set_.get(), EPOLL_CTL_ADD, part, &event) == -1)
			return ostrel_errno2error(errno);
	}
	stay_readable(true);
	return OSTREL_SUCCESS;
}

void ostrelx_watch::stay_readable(bool wanted)
{
	if (wanted == is_signalled_)
		return;
	uint64_t count = 1;
	if (wanted)
		(void) !write(more_.get(), &count, sizeof(count)); // an eventfd that is 0 takes it
	else
		(void) !read(more_.get(), &count, sizeof(count));
	is_signalled_ = wanted;
}

// Whatever the timer has told so far is over.
void ostrelx_watch::retry_later(bool wanted)
{
	if (!wanted && !retries_)
		return;
	struct itimerspec when = {};
	when.it_value.tv_sec = wanted ? retry_seconds : 0;
	(void) timerfd_settime(retry_.get(), 0, &when, nullptr);
	retries_ = wanted;
}

// ---- Reading ----

// With its block: a first reading makes it large.
void ostrelx_watch::empty_queue()
{
	queue_.clear();
	(void) queue_.cut_to_size(); // else it stays as large as it is
	at_ = 0;
}

ostrelx_error_t ostrelx_watch::add(ostrelx_event_kind_t kind, attrlist_t *idl, attrlist_t *props)
{
	Heap<char> ids;
	Heap<char> values;
	Waiting waiting = {kind, nullptr, nullptr, 0, 0};
	if (int error = pack(idl, &ids, &waiting.idl_size))
		return ostrel_errno2error(error);
	if (int error = pack(props, &values, &waiting.props_size))
		return ostrel_errno2error(error);
	waiting.idl = ids.get();
	waiting.props = values.get();
	if (!queue_.append(waiting))
		return OSTREL_NO_MEMORY;
	(void) ids.release(); // the queue's now
	(void) values.release();
	return OSTREL_SUCCESS;
}

ostrelx_error_t ostrelx_watch::note(attrlist_t *idl, attrlist_t *props)
{
	bool is_new;
	is_noted_ = true;
	if (ostrel_error_t result = differ_.see(idl, props, &is_new))
		return result;
	if (!is_new || !reports_)
		return OSTREL_SUCCESS;
	return add(OSTRELX_EVENT_PUT, idl, props);
}

int ostrelx_watch::see(ostrel_db_t, attrlist_t *idl, attrlist_t *props, uint64_t, void *watch)
{
	auto *self = static_cast<struct ostrelx_watch *>(watch);
	self->walk_error_ = self->note(idl, props);
	return self->walk_error_;
}

// Goes over all selected objects. A file that isn't there holds none.
ostrelx_error_t ostrelx_watch::walk()
{
	AttrList idl;
	if (idl_) {
		if (int error = attrlist_dup(idl_.get(), idl.out(), 0))
			return ostrel_errno2error(error);
	}
	walk_error_ = OSTREL_SUCCESS;
	differ_.begin();
	ostrel_error_t result =
	    ostrel_db_walk(db_, idl.get(), (flags_ & walk_flags) | OSTREL_FLAG_WITH_PROPS, see, nullptr, this, nullptr);
	if (result == OSTREL_WALK_HALTED)
		return walk_error_;
	return result == OSTREL_NOT_FOUND ? OSTREL_SUCCESS : result;
}

ostrelx_error_t ostrelx_watch::read_whole(bool reports)
{
	reports_ = reports;
	if (ostrelx_error_t result = walk())
		return result;
	is_noted_ = true;
	for (;;) {
		AttrList gone;
		if (ostrel_error_t result = differ_.next_removed(gone.out()))
			return result;
		if (!gone)
			return OSTREL_SUCCESS;
		if (!reports)
			continue;
		if (ostrelx_error_t result = add(OSTRELX_EVENT_REMOVE, gone.get(), nullptr))
			return result;
	}
}

// The token is one of the selection and of all that it holds.
ostrelx_error_t ostrelx_watch::make_token()
{
	Digest parts[2] = {{}, differ_.content()};
	if (ostrel_error_t result = ostrel_digest_list(idl_.get(), &parts[0]))
		return result;
	parts[0].low ^= flags_ & walk_flags;
	parts[1].low += differ_.size();
	ostrel_print_digest("w", ostrel_digest(parts, sizeof(parts)), &token_);
	return OSTREL_SUCCESS;
}

// Reads without a report. *same: nothing was missed since the token was given.
ostrelx_error_t ostrelx_watch::resume(bool *same)
{
	ostrelx_error_t result = read_whole(false);
	if (result == OSTREL_SUCCESS)
		result = make_token();
	*same = result == OSTREL_SUCCESS && strcmp(token_.text, wanted_.text) == 0;
	return result;
}

ostrelx_error_t ostrelx_watch::begin_again()
{
	differ_.clear();
	is_fresh_ = true;
	return add(OSTRELX_EVENT_RESET, nullptr, nullptr);
}

// Fills the queue with what has changed; nothing, if nothing has.
ostrelx_error_t ostrelx_watch::read_all()
{
	is_noted_ = false;
	if (is_fresh_) {
		bool same = false;
		if (*wanted_.text != '\0') {
			if (ostrelx_error_t result = resume(&same))
				return result;
		}
		if (same)
			return add(OSTRELX_EVENT_SYNCED, nullptr, nullptr);
		if (ostrelx_error_t result = begin_again())
			return result;
	}
	if (ostrelx_error_t result = read_whole(true))
		return result;
	if (queue_.empty())
		return OSTREL_SUCCESS;
	if (ostrelx_error_t result = make_token())
		return result;
	return add(OSTRELX_EVENT_SYNCED, nullptr, nullptr);
}

// Reads, and knows afterwards whether what is held is a state of the store.
ostrelx_error_t ostrelx_watch::read_contents(bool is_blind)
{
	if (ostrelx_error_t error = read_all())
		return error;
	if (queue_.empty() && lost_ != OSTREL_SUCCESS && !is_blind) { // what is held is a state again
		if (ostrelx_error_t error = add(OSTRELX_EVENT_SYNCED, nullptr, nullptr))
			return error;
	}
	is_due_ = is_fresh_ = false;
	*wanted_.text = '\0';
	if (!is_blind)
		lost_ = OSTREL_SUCCESS;
	retry_later(false);
	return OSTREL_SUCCESS;
}

void ostrelx_watch::give_up_reading()
{
	empty_queue();
	if (!is_noted_)
		return;
	differ_.clear();
	is_fresh_ = true;
}

// ---- Handing out ----

ostrelx_error_t ostrelx_watch::hand_out(ostrelx_event_t *event)
{
	const Waiting &waiting = queue_[at_];
	event_idl_.reset();
	event_props_.reset();
	if (int error = unpack(waiting.idl, waiting.idl_size, &event_idl_))
		return ostrel_errno2error(error);
	if (int error = unpack(waiting.props, waiting.props_size, &event_props_))
		return ostrel_errno2error(error);
	*event = {waiting.kind, OSTREL_SUCCESS, event_idl_.get(), event_props_.get(), nullptr, nullptr};
	if (waiting.kind == OSTRELX_EVENT_PUT) {
		if (ostrel_error_t result = ostrel_version_of(event_idl_.get(), event_props_.get(), &version_))
			return result;
		event->version = version_.text;
	}
	if (waiting.kind == OSTRELX_EVENT_SYNCED)
		event->token = token_.text;
	if (++at_ == queue_.size())
		empty_queue();
	return OSTREL_SUCCESS;
}

void ostrelx_watch::hand_out_bare(bool is_blind, ostrelx_event_t *event)
{
	*event = {is_fresh_ ? OSTRELX_EVENT_RESET : OSTRELX_EVENT_CHANGED, OSTREL_SUCCESS, nullptr, nullptr, nullptr,
	    nullptr};
	is_fresh_ = is_due_ = false;
	if (!is_blind)
		lost_ = OSTREL_SUCCESS;
}

ostrelx_error_t ostrelx_watch::nothing()
{
	stay_readable(false);
	return OSTRELX_NOTHING;
}

// Once for each reason: what is held may be old from now on.
ostrelx_error_t ostrelx_watch::report_lost(ostrelx_error_t error, ostrelx_event_t *event)
{
	if (lost_ == error)
		return nothing();
	lost_ = error;
	*event = {OSTRELX_EVENT_LOST, error, nullptr, nullptr, nullptr, nullptr};
	return OSTREL_SUCCESS;
}

ostrelx_error_t ostrelx_watch::next(ostrelx_event_t *event)
{
	if (getpid() != owner_) // a forked child would take its parent's events
		return OSTREL_INVALID_ARG;
	if (!queue_.empty())
		return hand_out(event);
	bool changed = false;
	const ostrelx_error_t blind = notifier_->look(&changed);
	is_due_ = is_due_ || changed || (lost_ != OSTREL_SUCCESS && blind == OSTREL_SUCCESS);
	if (blind != OSTREL_SUCCESS && blind != lost_) {
		is_due_ = true;
		stay_readable(true);
		return report_lost(blind, event);
	}
	if (!is_due_)
		return nothing();
	stay_readable(true);
	if ((flags_ & OSTRELX_WATCH_BARE) != 0) {
		hand_out_bare(blind != OSTREL_SUCCESS, event);
		return OSTREL_SUCCESS;
	}
	if (ostrelx_error_t error = read_contents(blind != OSTREL_SUCCESS)) {
		give_up_reading();
		if (error == OSTREL_NO_MEMORY)
			return error;
		retry_later(true);
		return blind != OSTREL_SUCCESS ? nothing() : report_lost(error, event);
	}
	return queue_.empty() ? nothing() : hand_out(event);
}

// ---- The calls ----

ostrelx_error_t ostrelx_watch_open(
    ostrel_db_t db, attrlist_t *idl, uint64_t flags, const char *token, ostrelx_watch_t *watchp)
{
	if (db == nullptr || watchp == nullptr)
		return OSTREL_INVALID_ARG;
	if (token != nullptr && strnlen(token, ostrel_version_size) == ostrel_version_size)
		token = nullptr; // none of ours: as one of other content
	const struct ostrel_more *store = ostrelx_store_of(db);
	if (store == nullptr)
		return OSTREL_NOTSUP;
	Handle<struct ostrelx_watch, ostrelx_watch_close> watch(new (std::nothrow) struct ostrelx_watch());
	if (!watch)
		return OSTREL_NO_MEMORY;
	if (ostrelx_error_t result = watch->begin(db, *store, idl, flags, token))
		return result;
	*watchp = watch.release();
	return OSTREL_SUCCESS;
}

int ostrelx_watch_fd(ostrelx_watch_t watch)
{
	return watch != nullptr ? watch->fd() : -1;
}

ostrelx_error_t ostrelx_watch_next(ostrelx_watch_t watch, ostrelx_event_t *event)
{
	if (watch == nullptr || event == nullptr)
		return OSTREL_INVALID_ARG;
	return watch->next(event);
}

void ostrelx_watch_close(ostrelx_watch_t watch)
{
	delete watch;
}
