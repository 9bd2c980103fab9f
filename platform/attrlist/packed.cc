// The packed form: bytes that hold a list, for another process on this machine. docs/formats/packed-list.md describes it.
//
// Both ways go twice over the list: once to measure (and, for bytes from a stranger, to prove every one of them), once to
// write. So each result is one block of exactly the right size, and nothing is allocated for bytes that aren't in order.
#include <cstdlib>
#include <endian.h>

#include "attrlist/list.h"

namespace atl {

namespace {

constexpr char header[8] = {'A', 'T', 'L', 'P', 1, ATL_UNIQUE_NAME, 0, 0};

// In front of each pair.
struct PairHeader {
	uint32_t count;
	uint16_t name_length;
	uint8_t type;
	uint8_t zero;
};
static_assert(sizeof(PairHeader) == 8, "the packed form of a pair begins with 8 bytes");

// ---- Packing ----

size_t packed_size(attrlist *list);

size_t packed_value_size(const attrpair *pair, TypeInfo info)
{
	switch (info.kind) {
	case Kind::Scalar:
	case Kind::Numbers:
		return size_t{pair->count} * info.width;
	case Kind::Text:
		return size_t{pair->count} + 1;
	case Kind::Texts:
		return back_size(pair, info) + size_t{pair->count} * sizeof(uint32_t);
	case Kind::List:
		return packed_size(pair->value.list);
	default: {
		size_t size = 0;
		for (uint32_t i = 0; i < pair->count; i++)
			size += packed_size(pair->value.lists[i]);
		return size;
	}
	}
}

size_t packed_size(attrlist *list)
{
	size_t size = sizeof(uint32_t);
	for (const attrpair *pair = first_of(list); pair != nullptr; pair = after(list, pair))
		size += sizeof(PairHeader) + pair->name_length + 1 + packed_value_size(pair, info_of(pair->type));
	return size;
}

char *write_list(char *at, attrlist *list);

char *write_bytes(char *at, const void *bytes, size_t size)
{
	memcpy(at, bytes, size);
	return at + size;
}

char *write_u32(char *at, uint32_t value)
{
	value = htole32(value);
	return write_bytes(at, &value, sizeof(value));
}

// Numbers have the least byte first.
char *write_numbers(char *at, const void *numbers, size_t count, size_t width)
{
#if __BYTE_ORDER == __LITTLE_ENDIAN
	return write_bytes(at, numbers, count * width);
#else
	auto *from = static_cast<const char *>(numbers);
	for (size_t i = 0; i < count; i++)
		for (size_t byte = 0; byte < width; byte++)
			*at++ = from[i * width + width - 1 - byte];
	return at;
#endif
}

char *write_texts(char *at, const attrpair *pair)
{
	for (uint32_t i = 0; i < pair->count; i++) {
		size_t length = strlen(pair->value.texts[i]);
		at = write_u32(at, static_cast<uint32_t>(length));
		at = write_bytes(at, pair->value.texts[i], length + 1);
	}
	return at;
}

char *write_value(char *at, const attrpair *pair, TypeInfo info)
{
	switch (info.kind) {
	case Kind::Scalar:
	case Kind::Numbers:
		return write_numbers(at, data_of(pair, info), pair->count, info.width);
	case Kind::Text:
		return write_bytes(at, data_of(pair, info), size_t{pair->count} + 1);
	case Kind::Texts:
		return write_texts(at, pair);
	case Kind::List:
		return write_list(at, pair->value.list);
	default:
		for (uint32_t i = 0; i < pair->count; i++)
			at = write_list(at, pair->value.lists[i]);
		return at;
	}
}

char *write_list(char *at, attrlist *list)
{
	at = write_u32(at, list->count);
	for (const attrpair *pair = first_of(list); pair != nullptr; pair = after(list, pair)) {
		PairHeader head = {htole32(pair->count), htole16(pair->name_length), pair->type, 0};
		at = write_bytes(at, &head, sizeof(head));
		at = write_bytes(at, name_of(pair), size_t{pair->name_length} + 1);
		at = write_value(at, pair, info_of(pair->type));
	}
	return at;
}

// ---- Unpacking, first time: is every byte in order, and how much memory will it take? ----

struct Scan {
	const char *at;
	const char *end;
	size_t memory;

	size_t left() const { return static_cast<size_t>(end - at); }
};

bool scan_list(Scan &scan, int level);

template <typename T>
T load(const char *at)
{
	T value;
	memcpy(&value, at, sizeof(value));
	return value;
}

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
	if (length >= scan.left() || scan.at[length] != '\0' || strlen(scan.at) != length)
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

bool scan_value(Scan &scan, int level, const PairHeader &head, TypeInfo info, size_t *back)
{
	switch (info.kind) {
	case Kind::Scalar:
		return head.count == 1 && scan_numbers(scan, 1, info.width);
	case Kind::Numbers:
		return scan_numbers(scan, head.count, info.width);
	case Kind::Text:
		*back = text_size(head.count);
		return scan_text(scan, head.count);
	case Kind::Texts:
		return scan_texts(scan, head.count, back);
	case Kind::List:
		return head.count == 1 && scan_list(scan, level + 1);
	case Kind::Lists:
		for (uint32_t i = 0; i < head.count; i++)
			if (!scan_list(scan, level + 1))
				return false;
		return true;
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
	size_t back = 0;
	if (head.zero != 0 || head.count > ATTRLIST_ELEMENTS_MAX || !scan_text(scan, head.name_length) ||
	    !scan_value(scan, level, head, info, &back))
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

// ---- Unpacking, second time: the bytes are in order, but for names that stand twice in a list ----

const char *build_list(const char *at, attrlist *list);

const char *build_numbers(const char *at, void *to, size_t bytes, size_t width)
{
#if __BYTE_ORDER == __LITTLE_ENDIAN
	(void) width;
	if (bytes > 0)
		memcpy(to, at, bytes);
#else
	for (size_t i = 0; i < bytes; i++)
		static_cast<char *>(to)[i] = at[i / width * width + width - 1 - i % width];
#endif
	return at + bytes;
}

const char *build_texts(const char *at, attrpair *pair, size_t front)
{
	pair->value.texts = reinterpret_cast<char **>(reinterpret_cast<char *>(pair) - front);
	char *to = name_of(pair) + pair->name_length + 1;
	for (uint32_t i = 0; i < pair->count; i++) {
		size_t size = le32toh(load<uint32_t>(at)) + size_t{1};
		memcpy(to, at + sizeof(uint32_t), size);
		pair->value.texts[i] = to;
		to += size;
		at += sizeof(uint32_t) + size;
	}
	return at;
}

const char *build_lists(const char *at, attrlist *list, attrpair *pair, size_t front)
{
	auto *headers = reinterpret_cast<attrlist *>(reinterpret_cast<char *>(pair) - front);
	pair->value.list = headers;
	if (pair->type == DATA_TYPE_ATTRLIST_ARRAY)
		pair->value.lists = reinterpret_cast<attrlist **>(headers + pair->count);
	for (uint32_t i = 0; i < pair->count && at != nullptr; i++) {
		start_list(&headers[i], list);
		if (pair->type == DATA_TYPE_ATTRLIST_ARRAY)
			pair->value.lists[i] = &headers[i];
		at = build_list(at, &headers[i]);
	}
	return at;
}

// The bytes from which the text behind the name is copied, or none.
size_t back_of(TypeInfo info, const PairHeader &head, const char *value)
{
	if (info.kind == Kind::Text)
		return text_size(head.count);
	size_t back = 0;
	for (uint32_t i = 0; info.kind == Kind::Texts && i < head.count; i++) {
		size_t size = le32toh(load<uint32_t>(value)) + size_t{1};
		value += sizeof(uint32_t) + size;
		back += size;
	}
	return back;
}

const char *build_value(const char *at, attrlist *list, attrpair *pair, TypeInfo info, size_t front, size_t back)
{
	switch (info.kind) {
	case Kind::Texts:
		return build_texts(at, pair, front);
	case Kind::List:
	case Kind::Lists:
		return build_lists(at, list, pair, front);
	case Kind::Text:
		if (back != 0)
			pair->value.text = name_of(pair) + pair->name_length + 1;
		memcpy(back != 0 ? pair->value.text : pair->value.bytes, at, size_t{pair->count} + 1);
		return at + pair->count + 1;
	default:
		if (front != 0)
			pair->value.data = reinterpret_cast<char *>(pair) - front;
		return build_numbers(at, front != 0 ? pair->value.data : pair->value.bytes,
		    size_t{pair->count} * info.width, info.width);
	}
}

const char *build_pair(const char *at, attrlist *list)
{
	PairHeader head = load_header(at);
	TypeInfo info = info_of(head.type);
	Key key = key_for(list, at + sizeof(PairHeader), head.name_length);
	if (find(list, key).pair != nullptr)
		return nullptr;
	at += sizeof(PairHeader) + head.name_length + 1;
	size_t front = front_size(info, head.count);
	size_t back = back_of(info, head, at);
	attrpair *pair = take_pair(root_of(list), key.name, key.length, {head.type, nullptr, head.count}, front, back);
	append(list, pair, key.hash);
	return build_value(at, list, pair, info, front, back);
}

// Gives the place behind the list, or NULL for a name that stands twice.
const char *build_list(const char *at, attrlist *list)
{
	uint32_t count = le32toh(load<uint32_t>(at));
	at += sizeof(uint32_t);
	(void) reserve_index(list, count); // its memory was measured
	for (uint32_t i = 0; i < count && at != nullptr; i++)
		at = build_pair(at, list);
	return at;
}

} // namespace

} // namespace atl

int attrlist_pack(attrlist_t *list, char **bufp, size_t *lenp, int encoding, int zero)
{
	if (list == nullptr || bufp == nullptr || *bufp != nullptr || lenp == nullptr || encoding != ATL_ENCODE_XDR ||
	    zero != 0)
		return EINVAL;
	size_t size = sizeof(atl::header) + atl::packed_size(list);
	auto *buf = static_cast<char *>(malloc(size));
	if (buf == nullptr)
		return ENOMEM;
	atl::write_list(atl::write_bytes(buf, atl::header, sizeof(atl::header)), list);
	*bufp = buf;
	*lenp = size;
	return 0;
}

int attrlist_unpack(const char *buf, size_t len, attrlist_t **outp, int zero)
{
	if (buf == nullptr || outp == nullptr || zero != 0 || len < sizeof(atl::header) ||
	    memcmp(buf, atl::header, sizeof(atl::header)) != 0)
		return EINVAL;
	atl::Scan scan = {buf + sizeof(atl::header), buf + len, 0};
	if (!atl::scan_list(scan, 1) || scan.left() != 0)
		return EINVAL;
	atl::Arena arena;
	attrlist_t *list = atl::open_exact(scan.memory, &arena);
	if (list == nullptr)
		return ENOMEM;
	bool unique = atl::build_list(buf + sizeof(atl::header), list) != nullptr;
	atl::close_exact(list);
	if (!unique) {
		attrlist_free(list);
		return EINVAL;
	}
	*outp = list;
	return 0;
}
