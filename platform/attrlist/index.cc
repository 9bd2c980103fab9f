// Open addressing with steps of one; at most three quarters of the slots are in use, and their number is a power of two.
//
// A slot names the pair in front of its own: the ring is linked one way, and to take a pair out one needs the pair in front of it.
// So when a pair goes, the slot of the pair after it has to name another one (erase_from_index()). The first pair's slot says
// NULL, not the last pair, which changes with each pair that is appended.
//
// Names come from strangers, in packed lists: with a hash that they could work out they would choose names that all fall on
// one slot. So it depends on a secret of the process, and no hash is ever written down.
//
// An index never shrinks. A larger one is filled before the old one is given back, so that a failure leaves the list as it was.
#include "attrlist/index.h"

#include <cerrno>
#include <sys/random.h>
#include <time.h>

namespace atl {

namespace {

constexpr size_t slots_first = 32;

// ---- The hash: SipHash with one round a word and three at the end, keyed by a secret of the process ----

struct Secret {
	uint64_t first;
	uint64_t second;
};

Secret make_secret()
{
	Secret secret;
	if (getrandom(&secret, sizeof(secret), GRND_NONBLOCK) == static_cast<ssize_t>(sizeof(secret)))
		return secret;
	// Early in the life of a machine: addresses and the clock are what is hard to guess then.
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	secret.first = reinterpret_cast<uintptr_t>(&secret) ^ (static_cast<uint64_t>(now.tv_nsec) << 32);
	secret.second = reinterpret_cast<uintptr_t>(&make_secret) ^ static_cast<uint64_t>(now.tv_sec);
	return secret;
}

const Secret &secret_of_process()
{
	static const Secret secret = make_secret();
	return secret;
}

uint64_t rotate(uint64_t value, int bits)
{
	return (value << bits) | (value >> (64 - bits));
}

struct SipState {
	uint64_t a, b, c, d;

	void round()
	{
		a += b;
		c += d;
		b = rotate(b, 13) ^ a;
		d = rotate(d, 16) ^ c;
		a = rotate(a, 32);
		a += d;
		c += b;
		d = rotate(d, 21) ^ a;
		b = rotate(b, 17) ^ c;
		c = rotate(c, 32);
	}
	void word(uint64_t value)
	{
		d ^= value;
		round();
		a ^= value;
	}
};

// ---- The slots ----

size_t slots_for(size_t count)
{
	size_t slots = slots_first;
	while (count * 4 > slots * 3)
		slots *= 2;
	return slots;
}

size_t size_with(size_t slots)
{
	return rounded(sizeof(Index) + slots * sizeof(Slot));
}

attrpair *pair_of(attrlist *list, const Slot &slot)
{
	return slot.before != nullptr ? slot.before->next : list->index->last->next;
}

// The slot of the pair that follows `before`.
// It is there. Other pairs may have the same hash, but none has the same pair in front.
Slot *slot_after(attrlist *list, attrpair *before, uint32_t hash)
{
	Index *index = list->index;
	size_t at = hash & index->mask;
	while (index->slots()[at].hash != hash || index->slots()[at].before != before)
		at = (at + 1) & index->mask;
	return &index->slots()[at];
}

void put_slot(Index *index, attrpair *before, uint32_t hash)
{
	size_t at = hash & index->mask;
	while (index->slots()[at].hash != 0)
		at = (at + 1) & index->mask;
	index->slots()[at] = {before, hash};
	index->used++;
}

Index *take_index(attrlist *list, size_t slots)
{
	Arena *arena = arena_of(root_of(list));
	if (arena == nullptr)
		return nullptr;
	size_t size = size_with(slots);
	auto *index = static_cast<Index *>(arena_take(arena, size));
	if (index == nullptr)
		return nullptr;
	memset(static_cast<void *>(index), 0, size);
	index->mask = slots - 1;
	index->large = size > record_max && !arena->exact;
	return index;
}

void fill_index(attrlist *list, Index *index)
{
	attrpair *last = last_of(list);
	index->last = last;
	attrpair *before = nullptr;
	for (uint32_t left = list->count; left > 0; left--) {
		attrpair *pair = before != nullptr ? before->next : last->next;
		put_slot(index, before, hash_name(name_of(pair), pair->name_length));
		before = pair;
	}
}

// Closes the gap: every later entry of the run that may stand nearer to its own place moves up.
void empty_slot(Index *index, size_t gap)
{
	Slot *slots = index->slots();
	for (size_t at = (gap + 1) & index->mask; slots[at].hash != 0; at = (at + 1) & index->mask) {
		size_t home = slots[at].hash & index->mask;
		if (((at - home) & index->mask) < ((at - gap) & index->mask))
			continue;
		slots[gap] = slots[at];
		gap = at;
	}
	slots[gap] = {};
	index->used--;
}

} // namespace

uint32_t hash_name(const char *name, size_t length)
{
	const Secret &secret = secret_of_process();
	SipState state = {secret.first ^ 0x736f6d6570736575U, secret.second ^ 0x646f72616e646f6dU,
	    secret.first ^ 0x6c7967656e657261U, secret.second ^ 0x7465646279746573U};
	size_t left = length;
	for (; left >= 8; left -= 8, name += 8) {
		uint64_t word;
		memcpy(&word, name, sizeof(word));
		state.word(word);
	}
	uint64_t tail = 0;
	memcpy(&tail, name, left);
	state.word(tail | (static_cast<uint64_t>(length) << 56));
	state.c ^= 0xff;
	state.round();
	state.round();
	state.round();
	// The top bit is set: 0 is an empty slot.
	return static_cast<uint32_t>(state.a ^ state.b ^ state.c ^ state.d) | 0x80000000U;
}

size_t long_index_size(size_t count)
{
	return size_with(slots_for(count));
}

// Every search ends, at an empty slot at the latest.
Position find_in_index(attrlist *list, const Key &key)
{
	Index *index = list->index;
	for (size_t at = key.hash & index->mask; index->slots()[at].hash != 0; at = (at + 1) & index->mask) {
		Slot &slot = index->slots()[at];
		if (slot.hash != key.hash)
			continue;
		attrpair *pair = pair_of(list, slot);
		if (has_name(pair, key))
			return {pair, slot.before != nullptr ? slot.before : index->last, &slot};
	}
	return {};
}

int grow_index(attrlist *list, size_t more)
{
	size_t count = list->count + more;
	if (count > ATTRLIST_ELEMENTS_MAX)
		return EINVAL;
	bool indexed = (list->flags & LIST_INDEXED) != 0;
	if (indexed && count * 4 <= (list->index->mask + 1) * 3)
		return 0;
	Index *index = take_index(list, slots_for(count));
	if (index == nullptr)
		return ENOMEM;
	fill_index(list, index);
	release_index(list);
	list->index = index;
	list->flags |= LIST_INDEXED;
	return 0;
}

// `last` and `index` share their memory in a list, so the caller puts one of them in place afterwards.
void release_index(attrlist *list)
{
	if ((list->flags & LIST_INDEXED) == 0)
		return;
	Index *index = list->index;
	list->flags &= static_cast<uint8_t>(~LIST_INDEXED);
	if (Arena *arena = arena_of(root_of(list)))
		arena_give(arena, index, size_with(index->mask + 1), index->large);
}

void insert_in_index(attrlist *list, attrpair *before, uint32_t hash)
{
	put_slot(list->index, before, hash);
}

void erase_from_index(attrlist *list, const Position &position)
{
	Index *index = list->index;
	if (position.pair != index->last) {
		// The next pair has another one before it now.
		attrpair *next = position.pair->next;
		Slot *following = slot_after(list, position.pair, hash_name(name_of(next), next->name_length));
		following->before = position.slot->before;
	}
	empty_slot(index, static_cast<size_t>(position.slot - index->slots()));
}

} // namespace atl
