// From packed bytes to a list. The bytes may come from a stranger.
//
//   scan   goes over all bytes, proves each length before it's used, and measures the memory of the list
//   build  makes the list in one block; what is left to be refused is a name that stands twice
//
// Rules of the scan: a length is compared with what is left before anything is read or skipped by it; a count is at most
// ATTRLIST_ELEMENTS_MAX before it is multiplied, so that no product overflows; a loop over a count that isn't bounded yet takes
// bytes in each turn, so it ends with them; the levels are bounded, and so is the stack.
//
// The build checks nothing of that again, and takes its memory without a look at its end. So the two have to go over the
// bytes in the same way, to the byte: what changes in one changes in the other, and in what a record is measured by.
#include "attrlist/packed.h"
#include "base/memory_gate.h"

namespace atl {

namespace {

// ---- Scan ----

struct Scan {
	const char *at;
	const char *end;
	size_t memory;

	size_t left() const { return static_cast<size_t>(end - at); }
};

bool scan_list(Scan &scan, int level);

// Copied out, since the bytes may begin anywhere.
PairHeader load_header(const char *at)
{
	auto head = load<PairHeader>(at);
	head.count = le32toh(head.count);
	head.name_length = le16toh(head.name_length);
	return head;
}

// A text of so many bytes: they and the terminator are there, and no other terminator is among them.
bool scan_text(Scan &scan, size_t length)
{
	if (length >= scan.left() || scan.at[length] != '\0' || !ends_at(scan.at, length, scan.left()))
		return false;
	scan.at += length + 1;
	return true;
}

bool scan_texts(Scan &scan, size_t count, size_t *back)
{
	for (size_t i = 0; i < count; i++) {
		if (scan.left() < sizeof(uint32_t))
			return false;
		size_t length = le32toh(load<uint32_t>(scan.at));
		scan.at += sizeof(uint32_t);
		if (!scan_text(scan, length))
			return false;
		*back += length + 1;
	}
	return true;
}

bool scan_numbers(Scan &scan, size_t count, size_t width)
{
	if (count * width > scan.left())
		return false;
	scan.at += count * width;
	return true;
}

bool scan_lists(Scan &scan, int level, size_t count)
{
	for (size_t i = 0; i < count; i++)
		if (!scan_list(scan, level))
			return false;
	return true;
}

// `back` grows by the size of the value's texts.
bool scan_value(Scan &scan, int level, size_t count, TypeInfo info, size_t *back)
{
	switch (info.kind) {
	case Kind::Scalar:
		return count == 1 && scan_numbers(scan, 1, info.width);
	case Kind::Numbers:
		return scan_numbers(scan, count, info.width);
	case Kind::Text:
		*back = text_size(count);
		return scan_text(scan, count);
	case Kind::Texts:
		return scan_texts(scan, count, back);
	case Kind::List:
		return count == 1 && scan_list(scan, level + 1);
	case Kind::Lists:
		return scan_lists(scan, level + 1, count);
	default:
		return false;
	}
}

bool scan_pair(Scan &scan, int level)
{
	if (scan.left() < sizeof(PairHeader))
		return false;
	PairHeader head = load_header(scan.at);
	TypeInfo info = info_of(head.type);
	scan.at += sizeof(PairHeader);
	if (head.zero != 0 || head.count > ATTRLIST_ELEMENTS_MAX || !scan_text(scan, head.name_length))
		return false;
	size_t back = 0;
	if (!scan_value(scan, level, head.count, info, &back))
		return false;
	scan.memory += record_size(front_size(info, head.count), head.name_length, back);
	return true;
}

bool scan_list(Scan &scan, int level)
{
	if (level > ATTRLIST_DEPTH_MAX || scan.left() < sizeof(uint32_t))
		return false;
	uint32_t count = le32toh(load<uint32_t>(scan.at));
	scan.at += sizeof(uint32_t);
	for (uint32_t i = 0; i < count; i++)
		if (!scan_pair(scan, level))
			return false;
	scan.memory += index_size(count);
	return count <= ATTRLIST_ELEMENTS_MAX;
}

// ---- Build ----

// Reads at `in` and makes records at the arena's end, as long as they were measured.
struct Build {
	const char *in;
	Arena *arena;
};

bool build_list(Build &build, attrlist *list);

// Gives the end of the texts, which begin at `to`.
char *build_texts(Build &build, attrpair *pair, char *to)
{
	for (uint32_t i = 0; i < pair->count; i++) {
		size_t size = le32toh(load<uint32_t>(build.in)) + size_t{1};
		copy_bytes(to, build.in + sizeof(uint32_t), size);
		pair->value.texts[i] = to;
		to += size;
		build.in += sizeof(uint32_t) + size;
	}
	return to;
}

// Fills in a value that isn't lists. Gives the end of what the record holds.
char *build_value(Build &build, attrpair *pair, TypeInfo info)
{
	char *end = name_of(pair) + pair->name_length + 1;
	size_t count = pair->count;
	bool apart = lies_apart(pair, info);
	if (info.kind == Kind::Texts)
		return build_texts(build, pair, end);
	if (info.kind == Kind::Text) {
		if (apart)
			pair->value.text = end;
		copy_bytes(apart ? end : pair->value.bytes, build.in, count + 1);
		build.in += count + 1;
		return apart ? end + count + 1 : end;
	}
	copy_numbers(apart ? pair->value.data : pair->value.bytes, build.in, count, info.width);
	build.in += count * info.width;
	return end;
}

bool build_lists(Build &build, attrlist *list, attrpair *pair, TypeInfo info)
{
	attrlist *lists = start_lists(pair, info, list);
	for (uint32_t i = 0; i < pair->count; i++) {
		if (!build_list(build, &lists[i]))
			return false;
	}
	return true;
}

// The pair is in the list before its value is: the lists in it are built where they stay.
// Names are looked up one by one as they come, in a long list through its index: so a list costs as much as its pairs are
// many, also if a stranger chose the names.
bool build_pair(Build &build, attrlist *list)
{
	PairHeader head = load_header(build.in);
	TypeInfo info = info_of(head.type);
	Key key = key_for(list, build.in + sizeof(PairHeader), head.name_length);
	if (find(list, key).pair != nullptr)
		return false;
	build.in += sizeof(PairHeader) + key.length + 1;
	char *record = build.arena->at;
	attrpair *pair = start_pair(record, front_size(info, head.count), key, head.type, head.count, 0);
	append(list, pair, key.hash);
	bool lists = holds_lists(info);
	char *end = lists ? name_of(pair) + key.length + 1 : build_value(build, pair, info);
	size_t size = rounded(static_cast<size_t>(end - record));
	pair->eighths = eighths_of(size, build.arena);
	build.arena->at = record + size;
	return !lists || build_lists(build, list, pair, info);
}

// False for a name that stands twice.
bool build_list(Build &build, attrlist *list)
{
	uint32_t count = le32toh(load<uint32_t>(build.in));
	build.in += sizeof(uint32_t);
	(void) reserve_index(list, count); // its memory was measured
	for (uint32_t i = 0; i < count; i++)
		if (!build_pair(build, list))
			return false;
	return true;
}

} // namespace

} // namespace atl

int attrlist_unpack(const char *buf, size_t len, attrlist_t **outp, int zero)
{
	using namespace atl;
	if (buf == nullptr || outp == nullptr || zero != 0)
		return EINVAL;
	if (len < sizeof(packed_start) || memcmp(buf, packed_start, sizeof(packed_start)) != 0)
		return EINVAL;
	Scan scan = {buf + sizeof(packed_start), buf + len, 0};
	if (!scan_list(scan, 1) || scan.left() != 0)
		return EINVAL;
	if (!may_take(scan.memory)) // a few bytes of a stranger's can make many
		return ENOMEM;
	Arena arena;
	attrlist_t *list = open_exact(scan.memory, &arena);
	if (list == nullptr)
		return ENOMEM;
	Build build = {buf + sizeof(packed_start), &arena};
	bool unique = build_list(build, list);
	close_exact(list);
	if (!unique) {
		attrlist_free(list); // half a list lies in one block as well
		return EINVAL;
	}
	*outp = list;
	return 0;
}
