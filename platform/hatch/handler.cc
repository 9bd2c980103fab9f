// Calls: running the handler, what it may ask of the layer, and how its reply is sent.
//
// hatch_return() leaves the handler by a jump to hatch_enter_handler(). Of the frames that the jump skips, those of the layer
// have no destructors: they hold plain values only.
#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <unistd.h>

#include "base/fail.h"
#include "base/memory_gate.h"
#include "base/process_mark.h"
#include "hatch/server.h"
#include "peercred/peercred.h"

namespace hatch {
namespace {

// How long a thread waits for a client to take more of its reply, before it puts the rest aside.
constexpr int reply_wait_ms = 20;

// Bytes of a call that aren't counted, so that small calls take no lock.
constexpr size_t memory_free = 64U << 10;

// What the running call takes beside its request. Its user is charged until the last piece of the reply is sent, or the call
// ends: no path can forget to give it back.
class CallMemory final : public MemoryGate {
public:
	explicit CallMemory(uid_t user) : charge_(user) { memory_gate = this; }
	CallMemory(const CallMemory &) = delete;
	CallMemory &operator=(const CallMemory &) = delete;
	~CallMemory() { memory_gate = nullptr; }

	bool take(size_t bytes) override
	{
		size_t taken;
		if (__builtin_add_overflow(taken_, bytes, &taken))
			return false;
		if (taken > memory_free && !charge_.resize(taken - memory_free))
			return false;
		taken_ = taken;
		return true;
	}
	void give_back()
	{
		(void) charge_.resize(0);
		taken_ = 0;
		reply_ = memory_kept;
	}
	// Memory for a reply replaces what was given before; what a thread keeps is free.
	bool take_reply(size_t size)
	{
		if (size <= reply_)
			return true;
		if (!take(size - reply_))
			return false;
		reply_ = size;
		return true;
	}

private:
	Charge charge_;
	size_t taken_ = 0;
	size_t reply_ = memory_kept;
};

// Measures the processor time of a user's calls; a call that waits, for a disk or for its client, counts as 0. Only one call in
// so many is measured, since that takes two system calls.
class CallTime {
public:
	explicit CallTime(Account *account)
	{
		if (account->exempt || account->calls++ % one_in != 0)
			return;
		account_ = account;
		begin_ = usage();
	}
	CallTime(const CallTime &) = delete;
	CallTime &operator=(const CallTime &) = delete;
	~CallTime()
	{
		if (account_ == nullptr)
			return;
		const struct rusage end = usage();
		const int64_t us = end.ru_nvcsw == begin_.ru_nvcsw ? us_of(end) - us_of(begin_) : 0;
		note_call(account_, us);
	}

private:
	static constexpr unsigned one_in = 16;

	static struct rusage usage()
	{
		struct rusage used = {};
		(void) getrusage(RUSAGE_THREAD, &used);
		return used;
	}
	static int64_t us_of(const struct rusage &used)
	{
		return 1'000'000 * (int64_t{used.ru_utime.tv_sec} + used.ru_stime.tv_sec) + used.ru_utime.tv_usec +
		       used.ru_stime.tv_usec;
	}

	Account *account_ = nullptr; // of a call that is measured
	struct rusage begin_ = {};
};

struct Call {
	sigjmp_buf back;
	Hatch *hatch;
	Peer *peer;
	CallMemory *memory;
	ProcessMark process; // that it was made in
	bool answered;       // or to be parked: its handler has ended it
};

struct ReplyMemory {
	char *data;
	size_t size;
};

thread_local constinit Call *current = nullptr;
thread_local constinit ReplyMemory memory = {nullptr, 0};

extern "C" void hatch_enter_handler(Call *call, char *data, size_t size) __attribute__((noinline));

extern "C" void hatch_enter_handler(Call *call, char *data, size_t size)
{
	if (sigsetjmp(call->back, 0) == 0)
		call->peer->channel->handler(call->peer->channel->cookie, data, size, nullptr, 0);
}

Call *running_call()
{
	return current != nullptr && !current->answered && current->process.is_own() ? current : nullptr;
}

// Whether the client makes room within the time that a thread may wait for it. Revoking ends the wait.
bool room_soon(const Hatch &hatch, const Peer &peer)
{
	struct pollfd looks[] = {{peer.socket.get(), POLLOUT, 0}, {hatch.stop.get(), POLLIN, 0}};
	return poll_until(looks, 2, Deadline::in(reply_wait_ms * millisecond_ns)) > 0 && looks[1].revents == 0;
}

// Comes before the last piece of a reply is sent: the client may make its next call before the thread does anything else, and
// nothing of this one may count then.
void settle(Hatch *hatch, Peer *peer)
{
	unhold(hatch, peer);
	Call *call = current;
	if (call != nullptr && call->peer == peer) // and not that of a handler which answers another one's call
		call->memory->give_back();
}

// Sends pieces until there is no room. Errors: 0, or an errno value; EAGAIN with *sent as far as it went.
int send_pieces(Hatch *hatch, Peer *peer, const char *data, size_t size, size_t *sent)
{
	while (*sent < size) {
		size_t piece = std::min(size - *sent, peer->piece);
		iovec part = {const_cast<char *>(data) + *sent, piece}; // only read
		if (piece == size - *sent)
			settle(hatch, peer);
		int error = send_message(peer->socket.get(), &part, 1, MSG_DONTWAIT);
		if (error == EINTR)
			continue;
		if (error != 0)
			return error;
		*sent += piece;
	}
	return 0;
}

void put_aside(Hatch *hatch, Peer *peer, const char *data, size_t size)
{
	settle(hatch, peer); // the request, and what the copy replaces: what is held from now on is the rest
	if (!hold(hatch, peer, size) || !peer->rest.map(size, Fill::now)) {
		peer->finished = true;
		return;
	}
	memcpy(peer->rest.data(), data, size);
	peer->rest_sent = 0;
}

int send_head(const Peer &peer, const ReplyHead &head, const char *data, size_t size)
{
	iovec parts[] = {{const_cast<ReplyHead *>(&head), sizeof head}, {const_cast<char *>(data), size}};
	int error;
	do
		error = send_message(peer.socket.get(), parts, size == 0 ? 1 : 2, MSG_DONTWAIT);
	while (error == EINTR);
	return error;
}

void give_up_large_memory()
{
	if (memory.size > memory_kept)
		free_reply_memory();
}

} // namespace

Hatch *running_hatch()
{
	Call *call = current;
	return call == nullptr ? nullptr : call->hatch;
}

void leave_call()
{
	memory_gate = nullptr;
	current = nullptr;
}

void free_reply_memory()
{
	if (memory.data != nullptr)
		(void) munmap(memory.data, memory.size);
	memory = {nullptr, 0};
}

void run_call(Hatch *hatch, Peer *peer, char *data, size_t size)
{
	Call call;
	CallMemory call_memory(peer->owner);
	CallTime call_time(peer->account);
	call.hatch = hatch;
	call.peer = peer;
	call.memory = &call_memory;
	call.process.claim();
	call.answered = false;
	current = &call;
	hatch_enter_handler(&call, data, size);
	current = nullptr;
	// A forked child has nobody to reply to, and must not touch what it shares with its parent.
	if (!call.process.is_own())
		_exit(EXIT_FAILURE);
	if (peer->ticket != nullptr && !peer->parks) {
		MutexLock hold_lock(hatch->lock);
		end_ticket(hatch, peer);
	}
	if (!call.answered)
		send_reply(hatch, peer, Refusal::no_reply, nullptr, 0);
	give_up_large_memory();
}

void send_reply(Hatch *hatch, Peer *peer, Refusal refusal, const char *data, size_t size, Patience patience)
{
	size_t sent = std::min(size, peer->piece);
	if (sent == size)
		settle(hatch, peer);
	int error = send_head(*peer, {wire_magic, static_cast<uint32_t>(refusal), size}, data, sent);
	// A client that doesn't take the head hasn't read its last reply. It is finished.
	while (error == 0 && sent < size) {
		error = send_pieces(hatch, peer, data, size, &sent);
		if (error != EAGAIN)
			continue;
		if (patience == Patience::none || !room_soon(*hatch, *peer))
			return put_aside(hatch, peer, data + sent, size - sent);
		error = 0;
	}
	// A client that has gone (EPIPE) may have sent another request before, one that takes back what this call did.
	peer->finished |= error != 0 && error != EPIPE;
}

void send_refusal(const Peer &peer, Refusal refusal)
{
	(void) send_head(peer, {wire_magic, static_cast<uint32_t>(refusal), 0}, nullptr, 0);
}

void send_rest(Hatch *hatch, Peer *peer)
{
	size_t size = peer->rest.size();
	int error = send_pieces(hatch, peer, peer->rest.data(), size, &peer->rest_sent);
	if (error == EAGAIN && (peer->held > 0 || hold(hatch, peer, size)))
		return;
	peer->finished |= error != 0;
	peer->rest.reset();
	unhold(hatch, peer);
}

} // namespace hatch

int hatch_return(const char *data, size_t size, hatch_desc_t *descs, unsigned int ndescs)
{
	(void) descs;
	hatch::Call *call = hatch::running_call();
	errno = call == nullptr ? EINVAL : ndescs != 0 ? ENOTSUP : EFAULT;
	if (call == nullptr || ndescs != 0 || (data == nullptr && size != 0))
		return -1;
	{
		CancellationWaits cancellation;
		hatch::send_reply(call->hatch, call->peer, hatch::Refusal::none, data, size);
	}
	call->answered = true;
	siglongjmp(call->back, 1);
}

int hatch_ticket(uint64_t *ticket)
{
	hatch::Call *call = ticket == nullptr ? nullptr : hatch::running_call();
	return fail_with(call == nullptr ? EINVAL : hatch::give_ticket(call->hatch, call->peer, ticket));
}

int hatch_park(void)
{
	hatch::Call *call = hatch::running_call();
	if (call == nullptr || call->peer->ticket == nullptr)
		return fail_with(EINVAL);
	{
		CancellationWaits cancellation;
		hatch::settle(call->hatch, call->peer);
	}
	call->answered = call->peer->parks = true;
	siglongjmp(call->back, 1);
}

int hatch_will_wait(void)
{
	hatch::Call *call = hatch::running_call();
	if (call == nullptr)
		return fail_with(EINVAL);
	hatch::ensure_waiting(call->hatch);
	return 0;
}

void *hatch_reply_memory(size_t size)
{
	hatch::Call *call = hatch::running_call();
	if (call == nullptr || !call->memory->take_reply(size)) {
		errno = call == nullptr ? EINVAL : ENOMEM;
		return nullptr;
	}
	if (size > hatch::memory.size || hatch::memory.data == nullptr) {
		hatch::free_reply_memory();
		hatch::Mapping fresh;
		if (!fresh.map(hatch::round_to_page(std::max(size, size_t{1})), hatch::Fill::now)) {
			errno = ENOMEM;
			return nullptr;
		}
		hatch::memory.size = fresh.size();
		hatch::memory.data = fresh.release();
	}
	return hatch::memory.data;
}

int hatch_charge(size_t bytes)
{
	hatch::Call *call = hatch::running_call();
	if (call != nullptr && call->memory->take(bytes))
		return 0;
	errno = call == nullptr ? EINVAL : ENOMEM;
	return -1;
}

int hatch_peercred(peercred_t **cred)
{
	hatch::Call *call = cred == nullptr ? nullptr : hatch::running_call();
	if (call == nullptr) {
		errno = EINVAL;
		return -1;
	}
	peercred_t *made = peercred_make(call->peer->sender);
	if (made == nullptr) {
		errno = ENOMEM;
		return -1;
	}
	*cred = made;
	return 0;
}
