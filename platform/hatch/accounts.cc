// Users: whose a connection is, which line it stands in, whose turn it is, and who has most.
#include <algorithm>
#include <new>
#include <unistd.h>

#include "hatch/server.h"

namespace hatch {

std::atomic<size_t> all_live;
std::atomic<size_t> all_held;
std::atomic<int> all_threads;

namespace {

// Users that are looked at for something to drop: those with most may have all in hand.
constexpr int looks_max = 8;

// A user's calls compute if they take more processor time than this and don't wait for anything meanwhile.
constexpr int64_t computing_us = 50;

Account **find(Hatch *hatch, uid_t uid) REQUIRES(hatch->lock)
{
	Account **link = &hatch->accounts[uid % Hatch::buckets];
	while (*link != nullptr && (*link)->uid != uid)
		link = &(*link)->next;
	return link;
}

void enter_ring(Hatch *hatch, Account *account) REQUIRES(hatch->lock)
{
	if (account->in_ring || account->waiting.empty() || account->running >= threads_share(*account))
		return;
	account->in_ring = true;
	hatch->ring.join(account);
	hatch->in_ring++;
}

Peer *holding_of(const Account &account)
{
	Peer *peer = account.holding.first;
	while (peer != nullptr && (peer->in_hand || peer->dropped)) // as many as there are threads, at most
		peer = peer->hold.next;
	return peer;
}

// The idle ones first, then those that hold something, those that a thread stays with, and those that wait for a thread.
Peer *unused_of(const Account &account, const Peer *but)
{
	Peer *stayed_with = nullptr;
	for (Peer *peer = account.idle.first; peer != nullptr; peer = peer->line.next) {
		if (peer == but || peer->dropped)
			continue;
		if (!peer->stayed_with && peer->held == 0)
			return peer;
		if (stayed_with == nullptr && peer->stayed_with && !peer->in_hand)
			stayed_with = peer;
		if (!peer->stayed_with)
			break; // it holds something: there may be many
	}
	if (Peer *holding = holding_of(account))
		return holding;
	if (stayed_with != nullptr)
		return stayed_with;
	Peer *waiting = account.waiting.first;
	return waiting == nullptr || waiting->dropped ? nullptr : waiting;
}

} // namespace

// Calls that wait, for one sync perhaps, have many threads. Of those that compute, more than there are processors end no
// sooner, and each keeps a call of somebody else's waiting. Receiving a request piece by piece computes, too.
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
	Account **link = find(hatch, peer->owner);
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
	count_out(hatch, peer);
	hatch->peers.leave(peer);
	if (--account->connections > 0)
		return;
	if (account->in_ring) {
		hatch->ring.leave(account);
		hatch->in_ring--;
	}
	*find(hatch, account->uid) = account->next;
	delete account;
}

void stand_idle(Peer *peer)
{
	peer->standing = Standing::idle;
	peer->account->idle.join(peer);
}

void leave_line(Peer *peer)
{
	Account *account = peer->account;
	if (peer->standing == Standing::idle)
		account->idle.leave(peer);
	else if (peer->standing == Standing::waiting) {
		account->waiting.leave(peer);
		account->in_line--;
	}
	peer->standing = Standing::none;
}

void line_up(Hatch *hatch, Peer *peer)
{
	leave_line(peer);
	peer->standing = Standing::waiting;
	peer->account->waiting.join(peer);
	peer->account->in_line++;
	enter_ring(hatch, peer->account);
}

Peer *begin_turn(Hatch *hatch)
{
	Account *account = hatch->ring.take();
	if (account == nullptr)
		return nullptr;
	account->in_ring = false;
	hatch->in_ring--;
	Peer *peer = account->waiting.first; // one is there: it left the ring else
	leave_line(peer);
	peer->in_hand = true;
	peer->finished = peer->dropped && (peer->request || peer->rest); // its client was told so
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

// Root and the server's own user have an eighth of all for themselves.
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

// A stranger's, if there is any: what is dropped here was a part of a call.
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
