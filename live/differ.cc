// A table of objects by their identifiers. Entries stand without gaps, and an index of their numbers leads to them: with the spare
// room of both that is 37 to 59 bytes an object, its identifiers apart.
//
// Identifiers are texts, as good as always, and stand as their names and values then, each with its NUL: that takes half of what
// the packed form does.
#include "differ.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t first_room = 32;
constexpr size_t first_slots = 64;
constexpr uint32_t no_entry = UINT32_MAX;

uint64_t hash_ids(const char *ids, size_t size)
{
	return ostrel_digest(ids, size).low;
}

// The first byte of identifiers: what follows is names and values, or a packed list.
enum : char { as_texts = 't', as_packed = 'p' };

// The size of the first form; 0 for a list that hasn't got one.
size_t size_as_texts(attrlist_t *idl)
{
	size_t size = 1;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(idl, pair)) != nullptr;) {
		char *value;
		if (attrpair_value_string(pair, &value) != 0)
			return 0;
		for (attrpair_t *other = nullptr; (other = attrlist_next_attrpair(idl, other)) != pair;) {
			if (strcmp(attrpair_name(other), attrpair_name(pair)) == 0)
				return 0; // a list that keeps both
		}
		size += strlen(attrpair_name(pair)) + 1 + strlen(value) + 1;
	}
	return size;
}

ostrel_error_t pack_as_packed(attrlist_t *idl, Heap<char> *ids, size_t *size)
{
	Heap<char> packed;
	size_t length = 0;
	if (int error = attrlist_pack(idl, packed.out(), &length, ATL_ENCODE_XDR, 0))
		return ostrel_errno2error(error);
	*size = length + 1;
	ids->reset(static_cast<char *>(malloc(*size)));
	if (!*ids)
		return OSTREL_NO_MEMORY;
	ids->get()[0] = as_packed;
	memcpy(ids->get() + 1, packed.get(), length);
	return OSTREL_SUCCESS;
}

ostrel_error_t pack_identifiers(attrlist_t *idl, Heap<char> *ids, size_t *size)
{
	*size = size_as_texts(idl);
	if (*size == 0)
		return pack_as_packed(idl, ids, size);
	ids->reset(static_cast<char *>(malloc(*size)));
	if (!*ids)
		return OSTREL_NO_MEMORY;
	char *at = ids->get();
	*at++ = as_texts;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(idl, pair)) != nullptr;) {
		char *value;
		(void) attrpair_value_string(pair, &value); // a text, as was seen
		at = stpcpy(stpcpy(at, attrpair_name(pair)) + 1, value) + 1;
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t unpack_identifiers(const char *ids, size_t size, attrlist_t **idl)
{
	if (*ids == as_packed)
		return ostrel_errno2error(attrlist_unpack(ids + 1, size - 1, idl, 0));
	AttrList made;
	if (int error = attrlist_alloc(made.out(), ATL_UNIQUE_NAME, 0))
		return ostrel_errno2error(error);
	for (const char *name = ids + 1; name < ids + size;) {
		const char *value = name + strlen(name) + 1;
		if (int error = attrlist_add_string(made.get(), name, value))
			return ostrel_errno2error(error);
		name = value + strlen(value) + 1;
	}
	*idl = made.release();
	return OSTREL_SUCCESS;
}

} // namespace

Differ::~Differ()
{
	clear();
	free(entries_);
	free(index_);
}

void Differ::clear()
{
	for (size_t i = 0; i < count_; i++)
		free(entries_[i].ids);
	count_ = 0;
	sum_ = {0, 0};
	for (size_t i = 0; i < slots_; i++)
		index_[i] = no_entry;
}

void Differ::begin()
{
	reading_++;
	removal_ = SIZE_MAX;
}

uint64_t Differ::hash_of(const Entry &entry) const
{
	return hash_ids(entry.ids, entry.size);
}

// The slot of an object, or the free one that it would get. Needs room.
size_t Differ::find(const char *ids, size_t size) const
{
	for (size_t slot = hash_ids(ids, size) & (slots_ - 1);; slot = (slot + 1) & (slots_ - 1)) {
		const uint32_t number = index_[slot];
		if (number == no_entry ||
		    (entries_[number].size == size && memcmp(entries_[number].ids, ids, size) == 0))
			return slot;
	}
}

bool Differ::grow_index()
{
	const size_t slots = slots_ == 0 ? first_slots : 2 * slots_;
	auto *index = static_cast<uint32_t *>(malloc(slots * sizeof(uint32_t)));
	if (index == nullptr)
		return false;
	free(index_);
	index_ = index;
	slots_ = slots;
	for (size_t i = 0; i < slots_; i++)
		index_[i] = no_entry;
	for (size_t i = 0; i < count_; i++)
		index_[find(entries_[i].ids, entries_[i].size)] = static_cast<uint32_t>(i);
	return true;
}

// For one more object. The index is at most three quarters full.
bool Differ::make_room()
{
	if (count_ == no_entry)
		return false;
	if (count_ == room_) {
		const size_t room = room_ == 0 ? first_room : room_ + room_ / 2;
		void *entries = realloc(entries_, room * sizeof(Entry));
		if (entries == nullptr)
			return false;
		entries_ = static_cast<Entry *>(entries);
		room_ = room;
	}
	return count_ + 1 <= slots_ / 4 * 3 || grow_index();
}

// Sums, so that the order of the objects doesn't matter.
static Digest digest_of(const char *ids, size_t size, const Digest &content)
{
	const Digest both[2] = {ostrel_digest(ids, size), content};
	return ostrel_digest(both, sizeof(both));
}

void Differ::count_in(const Entry &entry)
{
	const Digest one = digest_of(entry.ids, entry.size, entry.content);
	sum_ = {sum_.low + one.low, sum_.high + one.high};
}

void Differ::count_out(const Entry &entry)
{
	const Digest one = digest_of(entry.ids, entry.size, entry.content);
	sum_ = {sum_.low - one.low, sum_.high - one.high};
}

ostrel_error_t Differ::see(attrlist_t *idl, attrlist_t *props, bool *is_new)
{
	Heap<char> ids;
	size_t size = 0;
	Digest content;
	if (ostrel_error_t result = pack_identifiers(idl, &ids, &size))
		return result;
	if (ostrel_error_t result = ostrel_digest_list(props, &content))
		return result;
	if (size > UINT32_MAX || !make_room())
		return OSTREL_NO_MEMORY;
	uint32_t &number = index_[find(ids.get(), size)];
	*is_new = number == no_entry || !(entries_[number].content == content);
	if (number == no_entry) {
		number = static_cast<uint32_t>(count_);
		entries_[count_++] = {content, ids.release(), static_cast<uint32_t>(size), reading_};
	} else {
		count_out(entries_[number]);
		entries_[number].content = content;
		entries_[number].reading = reading_;
	}
	count_in(entries_[number]);
	return OSTREL_SUCCESS;
}

// Closes the gap: what couldn't be found past a free slot moves up.
void Differ::erase_slot(size_t gap)
{
	const size_t mask = slots_ - 1;
	for (size_t slot = (gap + 1) & mask; index_[slot] != no_entry; slot = (slot + 1) & mask) {
		const size_t wanted = hash_of(entries_[index_[slot]]) & mask;
		if (((slot - wanted) & mask) < ((slot - gap) & mask))
			continue;
		index_[gap] = index_[slot];
		gap = slot;
	}
	index_[gap] = no_entry;
}

// The last entry takes the free place.
void Differ::erase(uint32_t number)
{
	Entry &entry = entries_[number];
	Entry &last = entries_[count_ - 1];
	count_out(entry);
	erase_slot(find(entry.ids, entry.size));
	if (&last != &entry)
		index_[find(last.ids, last.size)] = number;
	free(entry.ids);
	entry = last;
	count_--;
}

// From the end on: the entry that takes the place of an erased one was looked at before.
ostrel_error_t Differ::next_removed(attrlist_t **idl)
{
	*idl = nullptr;
	if (removal_ > count_)
		removal_ = count_;
	for (; removal_ > 0; removal_--) {
		const Entry &entry = entries_[removal_ - 1];
		if (entry.reading == reading_)
			continue;
		if (ostrel_error_t result = unpack_identifiers(entry.ids, entry.size, idl))
			return result;
		erase(static_cast<uint32_t>(--removal_));
		return OSTREL_SUCCESS;
	}
	return OSTREL_SUCCESS;
}
