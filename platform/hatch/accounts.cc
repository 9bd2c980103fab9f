// Users: their connections' queues, whose turn it is, and who has most.
#include <algorithm>
#include <new>
#include <unistd.h>

#include "hatch/server.h"

namespace hatch {

std::atomic<size_t> all_live;
std::atomic<size_t> all_held;
std::atomic<int> all_threads;

namespace {

// Users that are looked at for something to drop: threads may have all that those with most have.
constexpr int looks_max = 8;

// A user's calls count as computing if they take more processor time than this without a wait.
constexpr int64_t computing_us = 50;

void enter_ring(Hatch *hatch, Account *account) REQUIRES(hatch->lock)
{
	if (account->in_ring || account->ready.empty() || account->running >= threads_share(*account))
		return;
	account->in_ring = true;
	hatch->ring.join(account);
	hatch->in_ring++;
}

Peer *holding_of(const Account &account)
{
	Peer *peer = account.holding.first;
	while (peer != nullptr && (peer->in_hand || peer->dropped)) // at most as many as there are threads
		peer = peer->hold.next;
	return peer;
}

// The idle ones first, then the parked ones, which only ask again, those that hold something, those with a dedicated thread, and
// the ready ones.
Peer *unused_of(const Account &account, const Peer *but)
{
	Peer *dedicated = nullptr;
	for (Peer *peer = account.idle.first; peer != nullptr; peer = peer->queue.next) {
		if (peer == but || peer->dropped)
			continue;
		if (!peer->dedicated && peer->held == 0)
			return peer;
		if (dedicated == nullptr && peer->dedicated && !peer->in_hand)
			dedicated = peer;
		if (!peer->dedicated)
			break; // it holds something, and many may follow
	}
	if (account.parked.first != nullptr)
		return account.parked.first;
	if (Peer *holding = holding_of(account))
		return holding;
	if (dedicated != nullptr)
		return dedicated;
	Peer *ready = account.ready.first;
	return ready == nullptr || ready->dropped ? nullptr : ready;
}

} // namespace

// Calls that wait, for a disk for instance, may have many threads. More calls that compute than there are processors end no
// sooner, and each delays somebody else's call. Receiving a request piece by piece counts as computing.
int threads_share(const Account &account)
{
	static const int processors = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
	if (account.exempt)
		return HATCH_THREADS_MAX;
	return account.call_us > computing_us ? std::clamp(processors, 2, 64) : std::clamp(4 * processors, 8, 64);
}

void note_call(Account *account, int64_t us)
{
	account->call_us = (3 * account->call_us + us) / 4;
}

void note_part(Account *account)
{
	note_call(account, 2 * computing_us);
}

bool join(Hatch *hatch, Peer *peer)
{
	Account **link = hatch->accounts.find(peer->owner);
	if (*link == nullptr)
		*link = new (std::nothrow) Account(peer->owner, is_exempt(peer->owner));
	Account *account = *link;
	if (account == nullptr)
		return false;
	peer->account = account;
	hatch->peers.join(peer);
	account->connections++;
	account->peers++;
	hatch->most_peers.put(account);
	hatch->live++;
	all_live++;
	return true;
}

void leave(Hatch *hatch, Peer *peer)
{
	Account *account = peer->account;
	end_ticket(hatch, peer);
	count_out(hatch, peer);
	hatch->peers.leave(peer);
	if (--account->connections > 0)
		return;
	if (account->in_ring) {
		hatch->ring.leave(account);
		hatch->in_ring--;
	}
	*hatch->accounts.find(account->uid) = account->next;
	delete account;
}

void become_idle(Peer *peer)
{
	peer->in_queue = Queue::idle;
	peer->account->idle.join(peer);
}

void become_parked(Peer *peer)
{
	peer->in_queue = Queue::parked;
	peer->account->parked.join(peer);
}

void leave_queue(Peer *peer)
{
	Account *account = peer->account;
	if (peer->in_queue == Queue::idle)
		account->idle.leave(peer);
	else if (peer->in_queue == Queue::parked)
		account->parked.leave(peer);
	else if (peer->in_queue == Queue::ready) {
		account->ready.leave(peer);
		account->queued--;
	}
	peer->in_queue = Queue::none;
}

void enqueue(Hatch *hatch, Peer *peer)
{
	leave_queue(peer);
	peer->in_queue = Queue::ready;
	peer->account->ready.join(peer);
	peer->account->queued++;
	enter_ring(hatch, peer->account);
}

Peer *begin_turn(Hatch *hatch)
{
	Account *account = hatch->ring.take();
	if (account == nullptr)
		return nullptr;
	account->in_ring = false;
	hatch->in_ring--;
	Peer *peer = account->ready.first; // there is one, or the account wouldn't be in the ring
	leave_queue(peer);
	peer->in_hand = true;
	peer->finished = peer->dropped && (peer->request || peer->rest); // its client was told
	account->running++;
	enter_ring(hatch, account);
	return peer;
}

void end_turn(Hatch *hatch, Account *account)
{
	account->running--;
	enter_ring(hatch, account);
}

void set_held(Hatch *hatch, Peer *peer, size_t bytes)
{
	Account *account = peer->account;
	const size_t before = peer->held;
	if (before == 0 && bytes > 0) {
		account->holding.join(peer);
		peer->held_since = now_ns();
	} else if (before > 0 && bytes == 0) {
		account->holding.leave(peer);
	}
	peer->held = bytes;
	account->held += bytes - before;
	hatch->held += bytes - before;
	all_held += bytes - before;
	hatch->most_held.put(account);
}

void count_out(Hatch *hatch, Peer *peer)
{
	set_held(hatch, peer, 0);
	if (peer->dropped)
		return;
	peer->dropped = true;
	peer->account->peers--;
	hatch->most_peers.put(peer->account);
	hatch->live--;
	all_live--;
}

// Root and the server's own user keep an eighth of all connections.
Peer *longest_unused(Hatch *hatch, const Peer *but, size_t bound)
{
	int looks = looks_max;
	for (int rank = hatch->most_peers.ranks - 1; rank > 0; rank--) {
		for (Account *account = hatch->most_peers.rows[rank].first; account != nullptr;
		     account = account->by_peers.next) {
			if (looks-- == 0)
				return nullptr;
			if (account->exempt && account->peers <= bound / 8)
				continue;
			if (Peer *peer = unused_of(*account, but))
				return peer;
		}
	}
	return nullptr;
}

// Prefers a stranger's: what is dropped here is a part of a call.
Peer *longest_holding(Hatch *hatch)
{
	int looks = looks_max;
	Peer *last = nullptr;
	for (int rank = hatch->most_held.ranks - 1; rank > 0 && looks > 0; rank--) {
		for (Account *account = hatch->most_held.rows[rank].first; account != nullptr && looks-- > 0;
		     account = account->by_held.next) {
			Peer *peer = holding_of(*account);
			if (peer != nullptr && !account->exempt)
				return peer;
			if (last == nullptr)
				last = peer;
		}
	}
	return last;
}

} // namespace hatch
