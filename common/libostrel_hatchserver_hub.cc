// The hub of a served database: who waits, and when they are told.
//
// Divisions: begin and end; waiting; updates; telling.
#include "libostrel_hatchserver_live.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <sched.h>
#include <sys/random.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <meridon/hatch.h>

#include "base/growing_array.h"
#include "libostrel_auth.h"
#include "libostrel_error.h"
#include "libostrel_more.h"

namespace {

constexpr int64_t at_once_ns = 1;
constexpr int64_t update_wait_ns = 5'000'000; // for the reply of an update
constexpr int64_t retry_ns = 5'000'000;       // of an answer that couldn't be kept
constexpr size_t waiters_few = 64;            // are looked through with no gain

void free_waiter(Waiter *waiter)
{
	peercred_free(waiter->cred);
	delete waiter;
}
using NewWaiter = Handle<Waiter, free_waiter>;

// The read right of the users of one round, each looked up once.
class Rights {
public:
	explicit Rights(ostrel_db_t db) : db_(db) {}
	ostrel_error_t check(const peercred_t *cred)
	{
		const User user = {peercred_getruid(cred), peercred_getrgid(cred), OSTREL_SUCCESS};
		for (const User &known : known_) {
			if (known.uid == user.uid && known.gid == user.gid)
				return known.result;
		}
		User looked = user;
		looked.result = ostrel_db_check_read_auth(db_, cred);
		(void) known_.append(looked); // else it is looked up again
		return looked.result;
	}

private:
	struct User {
		uid_t uid;
		gid_t gid;
		ostrel_error_t result;
	};
	ostrel_db_t db_;
	GrowingArray<User> known_;
};

// The answers of one round: the same for all who may read, a head alone for the others.
class Answers {
public:
	explicit Answers(const Told &told)
	{
		AttrList list;
		Heap<char> packed;
		size_t size = 0;
		ostrel_error_t result = ostrel_told_list(told, &list);
		if (result == OSTREL_SUCCESS)
			result = ostrel_errno2error(attrlist_pack(list.get(), packed.out(), &size, ATL_ENCODE_XDR, 0));
		if (size + sizeof(head_) > sizeof(bytes_))
			result = OSTREL_NO_MEMORY;
		head_ = {static_cast<uint32_t>(LiveRequest::Wait), static_cast<uint32_t>(result)};
		memcpy(bytes_, &head_, sizeof(head_));
		if (result != OSTREL_SUCCESS)
			return;
		memcpy(bytes_ + sizeof(head_), packed.get(), size);
		size_ += size;
	}
	// Errors: those of hatch_answer(), or 0
	int send(int hatch, uint64_t ticket, ostrel_error_t result) const
	{
		LiveHead refusal = head_;
		const char *bytes = bytes_;
		size_t size = size_;
		if (result != OSTREL_SUCCESS) {
			refusal.result = static_cast<uint32_t>(result);
			bytes = reinterpret_cast<const char *>(&refusal);
			size = sizeof(refusal);
		}
		return hatch_answer(hatch, ticket, bytes, size) == -1 ? errno : 0;
	}

private:
	LiveHead head_;
	char bytes_[512];
	size_t size_ = sizeof(head_);
};

} // namespace

ostrel_error_t ostrel_told_list(const Told &told, AttrList *list)
{
	int error = attrlist_alloc(list->out(), ATL_UNIQUE_NAME, 0);
	if (error == 0)
		error = ostrel_live_add_position(list->get(), told.position);
	if (error == 0 && told.blind != OSTREL_SUCCESS)
		error = attrlist_add_int32(list->get(), ostrel_live_blind, static_cast<int32_t>(told.blind));
	return ostrel_errno2error(error);
}

// ---- Begin and end ----

Hub::Hub(ostrel_db_t db) : db_(db)
{
	begin_lock_.init();
	lock_.init();
}

// The hatch was revoked: nobody else has any of it.
Hub::~Hub()
{
	while (first_ != nullptr) {
		Waiter *next = first_->next;
		free_waiter(first_);
		first_ = next;
	}
	drop_notifier();
	lock_.destroy();
	begin_lock_.destroy();
}

void Hub::drop_notifier()
{
	if (notifier_ != nullptr)
		notifier_->end();
	notifier_ = nullptr;
	bell_.reset();
}

// Looks once: from then on every change is noticed.
ostrel_error_t Hub::make_notifier()
{
	bool changed;
	if (ostrel_error_t result = ostrel_more.notify(db_, nullptr, &notifier_)) {
		notifier_ = nullptr;
		return result;
	}
	const ostrel_error_t blind = notifier_->look(&changed);
	bell_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
	LivePosition position = {};
	if (!bell_ || getrandom(&position.start, sizeof(position.start), 0) != sizeof(position.start))
		return ostrel_errno2error(errno);
	{
		MutexLock hold(lock_);
		position_ = position;
		blind_ = blind;
	}
	if (hatch_source(hatch_, bell_.get(), ring, this) == -1)
		return ostrel_errno2error(errno);
	if (hatch_source(hatch_, notifier_->fd(), notice, this) == -1) {
		const int error = errno;
		(void) hatch_source(hatch_, bell_.get(), nullptr, nullptr); // it is one
		return ostrel_errno2error(error);
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t Hub::begin()
{
	MutexLock hold(begin_lock_);
	if (has_begun_)
		return OSTREL_SUCCESS;
	(void) hatch_will_wait(); // the handler's thread does
	if (ostrel_error_t result = make_notifier()) {
		drop_notifier();
		return result;
	}
	has_begun_ = true;
	return OSTREL_SUCCESS;
}

// ---- Waiting ----

void Hub::append(Waiter *waiter)
{
	(last_ != nullptr ? last_->next : first_) = waiter;
	last_ = waiter;
	waiters_++;
}

// Clients that have gone leave their entries behind.
void Hub::drop_gone()
{
	if (waiters_ < 2 * waiters_after_drop_ + waiters_few)
		return;
	Waiter **link = &first_;
	last_ = nullptr;
	waiters_ = 0;
	while (Waiter *waiter = *link) {
		if (hatch_ticket_check(hatch_, waiter->ticket) == 0) {
			last_ = waiter;
			waiters_++;
			link = &waiter->next;
			continue;
		}
		*link = waiter->next;
		free_waiter(waiter);
	}
	waiters_after_drop_ = waiters_;
}

ostrel_error_t Hub::wait(PeerCred *cred, const LivePosition *seen, Told *told, bool *parks)
{
	if (ostrel_error_t result = begin())
		return result;
	uint64_t ticket;
	if (hatch_ticket(&ticket) == -1)
		return ostrel_errno2error(errno);
	NewWaiter waiter(new (std::nothrow) Waiter{nullptr, ticket, 0, nullptr});
	if (!waiter)
		return OSTREL_NO_MEMORY;
	MutexLock hold(lock_);
	*told = {position_, blind_};
	*parks = seen != nullptr && *seen == position_;
	if (!*parks)
		return OSTREL_SUCCESS;
	drop_gone();
	waiter->cred = cred->release();
	waiter->count = position_.count;
	append(waiter.release());
	return OSTREL_SUCCESS;
}

// ---- Updates ----

void Hub::ring_in(int64_t ns) const
{
	struct itimerspec when = {};
	when.it_value.tv_nsec = ns;
	(void) timerfd_settime(bell_.get(), 0, &when, nullptr); // it is one
}

void Hub::begin_update()
{
	MutexLock hold(lock_);
	updates_++;
}

void Hub::end_update()
{
	MutexLock hold(lock_);
	updates_--;
	if (is_owed_)
		ring_in(at_once_ns);
	is_owed_ = false;
}

// ---- Telling ----

bool Hub::someone_is_due() const
{
	return first_ != nullptr && first_->count != position_.count;
}

// The source of the notifier.
void Hub::notice(void *hub)
{
	auto *self = static_cast<Hub *>(hub);
	bool changed = false;
	const ostrel_error_t blind = self->notifier_->look(&changed);
	{
		MutexLock hold(self->lock_);
		if (changed || blind != self->blind_)
			self->position_.count++;
		self->blind_ = blind;
		if (!self->someone_is_due())
			return;
		if (self->updates_ > 0) {
			self->is_owed_ = true;
			self->ring_in(update_wait_ns);
			return;
		}
	}
	self->fan_out();
}

// The source of the bell. Its ringer may be about to send the reply, and have lost its processor to this thread.
void Hub::ring(void *hub)
{
	auto *self = static_cast<Hub *>(hub);
	uint64_t ticks;
	(void) !read(self->bell_.get(), &ticks, sizeof(ticks)); // it may have been set again
	(void) sched_yield();
	self->fan_out();
}

// Takes those out who are due.
Waiter *Hub::take_told(Told *told)
{
	MutexLock hold(lock_);
	*told = {position_, blind_};
	Waiter *taken = first_;
	Waiter *last = nullptr;
	while (someone_is_due()) {
		last = first_;
		first_ = first_->next;
		waiters_--;
	}
	if (first_ == nullptr)
		last_ = nullptr;
	if (last == nullptr)
		return nullptr;
	last->next = nullptr;
	return taken;
}

void Hub::put_back(Waiter *first, Waiter *last)
{
	MutexLock hold(lock_);
	last->next = first_;
	first_ = first;
	if (last_ == nullptr)
		last_ = last;
	for (Waiter *waiter = first; waiter != last; waiter = waiter->next)
		waiters_++;
	waiters_++;
	ring_in(retry_ns);
}

// An answer that can be neither sent nor kept is tried again: its call is about to be parked.
void Hub::fan_out()
{
	Told told;
	Waiter *next = take_told(&told);
	if (next == nullptr)
		return;
	const Answers answers(told);
	Rights rights(db_);
	Waiter *kept = nullptr;
	Waiter *kept_last = nullptr;
	while (Waiter *waiter = next) {
		next = waiter->next;
		if (answers.send(hatch_, waiter->ticket, rights.check(waiter->cred)) != ENOMEM) {
			free_waiter(waiter);
			continue;
		}
		waiter->next = kept;
		kept_last = kept == nullptr ? waiter : kept_last;
		kept = waiter;
	}
	if (kept != nullptr)
		put_back(kept, kept_last);
}
