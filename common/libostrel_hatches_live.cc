// The client of a served database's channel 1: batches and versions, a call each, and the notifier.
//
// The notifier holds one wait, which the server parks. Its answer says that something may have changed, and the next wait goes
// over the same connection. While no server lives, a notifier of the path tells when one may have come. What else fails, such as a
// right that has gone, is tried again each few seconds. A server that lives and hangs up is asked once whether it knows the
// channel; one that doesn't is left alone until something happens at the path.
//
// After a failure the wait is begun without a position, and answered at once: so whatever was missed is read.
//
// Divisions: calls; the slots; the notifier.
#include "libostrel_hatches_live.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "base/hatch_client.h"
#include "libostrel_batch.h"
#include "libostrel_error.h"
#include "libostrel_files.h"
#include "libostrel_handle.h"
#include "libostrel_hatches.h"
#include "libostrel_idlist.h"

bool ostrel_live_get_position(attrlist_t *list, LivePosition *position)
{
	uint64_t *words;
	uint_t count;
	if (list == nullptr || attrlist_lookup_uint64_array(list, ostrel_live_position, &words, &count) != 0 ||
	    count != 2)
		return false;
	*position = {words[0], words[1]};
	return true;
}

int ostrel_live_add_position(attrlist_t *list, const LivePosition &position)
{
	uint64_t words[] = {position.start, position.count};
	return attrlist_add_uint64_array(list, ostrel_live_position, words, 2);
}

namespace {

// ---- Calls ----

constexpr size_t room_size = 1024; // for answers, all of which are short

// A request as it travels.
class Request {
public:
	ostrel_error_t make(LiveRequest request, attrlist_t *list)
	{
		Heap<char> packed;
		size_t size = 0;
		if (list != nullptr) {
			if (int error = attrlist_pack(list, packed.out(), &size, ATL_ENCODE_XDR, 0))
				return ostrel_errno2error(error);
		}
		if (size > Batch::packed_max)
			return OSTREL_NO_MEMORY;
		bytes_.reset(static_cast<char *>(malloc(sizeof(LiveHead) + size)));
		if (!bytes_)
			return OSTREL_NO_MEMORY;
		const LiveHead head = {static_cast<uint32_t>(request), 0};
		memcpy(bytes_.get(), &head, sizeof(head));
		if (size > 0)
			memcpy(bytes_.get() + sizeof(head), packed.get(), size);
		size_ = sizeof(head) + size;
		return OSTREL_SUCCESS;
	}
	hatch_arg_t arg(char *room = nullptr) const
	{
		return {bytes_.get(), size_, nullptr, 0, room, room != nullptr ? room_size : 0};
	}

private:
	Heap<char> bytes_;
	size_t size_ = 0;
};

// Takes an answer apart; the server may be anybody's program. Owns: the list is new, if there is one, also beside a failure.
ostrel_error_t read_answer(LiveRequest request, const hatch_arg_t &arg, AttrList *list)
{
	LiveHead head;
	if (arg.data_size < sizeof(head))
		return OSTREL_FAILURE;
	memcpy(&head, arg.data_ptr, sizeof(head));
	if (head.request != static_cast<uint32_t>(request))
		return OSTREL_FAILURE;
	if (arg.data_size > sizeof(head)) {
		const char *packed = arg.data_ptr + sizeof(head);
		if (int error = attrlist_unpack(packed, arg.data_size - sizeof(head), list->out(), 0))
			return error == ENOMEM ? OSTREL_NO_MEMORY : OSTREL_FAILURE;
	}
	return static_cast<ostrel_error_t>(head.result);
}

ostrel_error_t failure_of(int error)
{
	return error == ENOSYS ? OSTREL_NOTSUP : ostrel_errno2error(error);
}

// 0 seconds: without a bound.
ostrel_error_t call_at(int hatch, LiveRequest request, attrlist_t *list, int seconds, AttrList *answer)
{
	char room[room_size];
	Request sent;
	if (ostrel_error_t result = sent.make(request, list))
		return result;
	hatch_arg_t arg = sent.arg(room);
	if (hatch_call_channel(hatch, ostrel_live_channel, seconds, &arg) == -1)
		return failure_of(errno);
	const FreshReply fresh(arg, room);
	return read_answer(request, arg, answer);
}

ostrel_error_t call(ostrel_db_t db, LiveRequest request, attrlist_t *list, AttrList *answer)
{
	HatchUse hatch;
	if (int error = ostrel_use_hatch(db, &hatch))
		return ostrel_errno2error(error);
	return call_at(hatch->fd, request, list, 0, answer);
}

bool is_version(const char *text)
{
	const size_t length = strnlen(text, ostrel_version_size);
	for (size_t i = 0; i < length; i++) {
		if (text[i] <= ' ' || text[i] > '~')
			return false;
	}
	return length > 0 && length < ostrel_version_size;
}

} // namespace

// ---- The slots ----

ostrel_error_t ostrel_commit_batch_to_hatch(ostrel_db_t db, const Batch &batch, int *failed)
{
	AttrList list;
	AttrList answer;
	if (ostrel_error_t result = batch.pack(list.out()))
		return result;
	const ostrel_error_t result = call(db, LiveRequest::Commit, list.get(), &answer);
	int32_t number;
	if (answer && attrlist_lookup_int32(answer.get(), ostrel_live_failed, &number) == 0 && number >= 0 &&
	    static_cast<size_t>(number) < batch.condition_count() + batch.step_count())
		*failed = number;
	return result;
}

ostrel_error_t ostrel_version_of_hatch(ostrel_db_t db, ObjectVersion *version)
{
	AttrList answer;
	char *text;
	if (ostrel_error_t result = call(db, LiveRequest::Version, nullptr, &answer))
		return result;
	if (!answer || attrlist_lookup_string(answer.get(), ostrel_live_version, &text) != 0 || !is_version(text))
		return OSTREL_FAILURE;
	memcpy(version->text, text, strlen(text) + 1);
	return OSTREL_SUCCESS;
}

// ---- The notifier ----

namespace {

constexpr int64_t retry_ms = 5000;
constexpr int64_t pause_ms =
    100; // after a connection was taken away for others' sake, so that no two push each other out
constexpr int hello_seconds = 2;

void end_notifier(Notifier *notifier)
{
	notifier->end();
}

class HatchNotifier final : public Notifier {
public:
	explicit HatchNotifier(ostrel_db_t db) : db_(db) {}

	ostrel_error_t begin();
	int fd() const override { return set_.get(); }
	ostrel_error_t look(bool *changed) override;
	void end() override { delete this; }
	~HatchNotifier() { drop_wait(); }

private:
	ostrel_error_t make_request(Request *request) const;
	void begin_wait();
	void take_answer(bool *changed);
	void ask_again();
	void drop_wait();
	void lose(int error);
	void lose_living();
	void fail(ostrel_error_t error, int64_t again_ms);
	int set(int operation, int fd) const;
	void wake_in(int64_t ms) const;

	ostrel_db_t db_;
	Handle<Notifier, end_notifier> path_;
	Fd set_, timer_;
	HatchUse hatch_; // whose server the wait is at
	hatch_pending_t *wait_ = nullptr;
	LivePosition seen_ = {};
	bool has_seen_ = false;
	bool is_due_ = true;                    // a wait is to be begun at the next look
	ostrel_error_t error_ = OSTREL_SUCCESS; // what look() says
};

int HatchNotifier::set(int operation, int fd) const
{
	struct epoll_event event = {};
	event.events = EPOLLIN;
	return epoll_ctl(set_.get(), operation, fd, &event) == -1 ? errno : 0;
}

void HatchNotifier::wake_in(int64_t ms) const
{
	struct itimerspec when = {};
	when.it_value = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
	(void) timerfd_settime(timer_.get(), 0, &when, nullptr); // it is one
}

// Server and path are of this enclave, whatever the handle says: it opens the path here.
ostrel_error_t HatchNotifier::begin()
{
	if (ostrel_error_t result = ostrel_notify_of_path(ostrel_db_get_name(db_), ENCLAVE_ID_GLOBAL, path_.out()))
		return result;
	set_.reset(epoll_create1(EPOLL_CLOEXEC));
	timer_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
	if (!set_ || !timer_)
		return ostrel_errno2error(errno);
	for (int part : {path_->fd(), timer_.get()}) {
		if (int error = set(EPOLL_CTL_ADD, part))
			return ostrel_errno2error(error);
	}
	return OSTREL_SUCCESS;
}

// A forked child's copy names no descriptor, and leaves the set, which is its parent's too, alone.
void HatchNotifier::drop_wait()
{
	if (wait_ == nullptr)
		return;
	(void) set(EPOLL_CTL_DEL, hatch_pending_fd(wait_));
	hatch_cancel(wait_);
	wait_ = nullptr;
}

void HatchNotifier::fail(ostrel_error_t error, int64_t again_ms)
{
	drop_wait();
	error_ = error;
	has_seen_ = false;
	wake_in(again_ms);
}

ostrel_error_t HatchNotifier::make_request(Request *request) const
{
	AttrList list;
	int error = attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0);
	if (error == 0 && has_seen_)
		error = ostrel_live_add_position(list.get(), seen_);
	return error != 0 ? ostrel_errno2error(error) : request->make(LiveRequest::Wait, list.get());
}

void HatchNotifier::begin_wait()
{
	is_due_ = false;
	wake_in(0);
	Request request;
	if (int error = ostrel_use_hatch(db_, &hatch_))
		return fail(ostrel_errno2error(error), retry_ms);
	if (ostrel_error_t result = make_request(&request))
		return fail(result, retry_ms);
	const hatch_arg_t arg = request.arg();
	int error = hatch_begin(hatch_->fd, ostrel_live_channel, &arg, &wait_) == -1 ? errno : 0;
	if (error == 0)
		error = set(EPOLL_CTL_ADD, hatch_pending_fd(wait_));
	if (error != 0)
		fail(ostrel_errno2error(error), retry_ms);
}

// A server that lives and hung up may not know the channel, or may be short of connections.
void HatchNotifier::lose_living()
{
	AttrList answer;
	const ostrel_error_t result = call_at(hatch_->fd, LiveRequest::Hello, nullptr, hello_seconds, &answer);
	if (result == OSTREL_SUCCESS)
		wake_in(pause_ms);
	else
		fail(result, result == OSTREL_NOTSUP ? 0 : retry_ms);
}

void HatchNotifier::lose(int error)
{
	hatch_info_t info;
	drop_wait();
	if (error == ECANCELED)
		return wake_in(pause_ms + getpid() % pause_ms);
	if (error != EBADF)
		return fail(ostrel_errno2error(error), retry_ms);
	if (is_living_hatch(hatch_->fd, &info))
		return lose_living();
	fail(OSTREL_FAILURE, retry_ms);
	is_due_ = true; // another one may be there already
}

void HatchNotifier::ask_again()
{
	Request request;
	if (ostrel_error_t result = make_request(&request))
		return fail(result, retry_ms);
	const hatch_arg_t arg = request.arg();
	if (hatch_again(wait_, &arg) == -1) {
		drop_wait();
		is_due_ = true;
	}
}

void HatchNotifier::take_answer(bool *changed)
{
	char room[room_size];
	hatch_arg_t arg = {nullptr, 0, nullptr, 0, room, sizeof(room)};
	if (hatch_finish(wait_, &arg) == -1) {
		if (errno != EAGAIN)
			lose(errno);
		return;
	}
	const FreshReply fresh(arg, room);
	AttrList answer;
	if (ostrel_error_t result = read_answer(LiveRequest::Wait, arg, &answer))
		return fail(result, result == OSTREL_NOTSUP ? 0 : retry_ms);
	has_seen_ = ostrel_live_get_position(answer.get(), &seen_);
	if (!has_seen_)
		return fail(OSTREL_FAILURE, retry_ms);
	int32_t blind = 0;
	(void) attrlist_lookup_int32(answer.get(), ostrel_live_blind, &blind); // as a rule it isn't there
	error_ = static_cast<ostrel_error_t>(blind);
	*changed = true;
	ask_again();
}

ostrel_error_t HatchNotifier::look(bool *changed)
{
	bool moved = false;
	*changed = false;
	(void) path_->look(&moved); // if it is blind, it has a look each few seconds by itself
	uint64_t ticks;
	const bool ticked = read(timer_.get(), &ticks, sizeof(ticks)) == sizeof(ticks);
	if (wait_ != nullptr)
		take_answer(changed);
	if (wait_ == nullptr && (is_due_ || moved || ticked))
		begin_wait();
	return error_;
}

} // namespace

ostrel_error_t ostrel_notify_of_hatch(ostrel_db_t db, attrlist_t *idl, Notifier **notifier)
{
	if (ostrel_idlist_chooses(idl)) // the server tells of the database that it serves
		return OSTREL_NOTSUP;
	auto *made = new (std::nothrow) HatchNotifier(db);
	if (made == nullptr)
		return OSTREL_NO_MEMORY;
	if (ostrel_error_t result = made->begin()) {
		made->end();
		return result;
	}
	*notifier = made;
	return OSTREL_SUCCESS;
}
