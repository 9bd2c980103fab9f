// From a list to its packed form: measured, then written without a check of the end. Both go over the list in the same way, and
// nobody else changes it meanwhile: a list is used by one thread at a time.
#include <cstdlib>

#include "attrlist/packed.h"

namespace atl {

namespace {

size_t packed_size(attrlist *list);

size_t texts_size(const attrpair *pair)
{
	size_t size = 0;
	for (uint32_t i = 0; i < pair->count; i++)
		size += sizeof(uint32_t) + strlen(pair->value.texts[i]) + 1;
	return size;
}

size_t value_size(const attrpair *pair, TypeInfo info)
{
	switch (info.kind) {
	case Kind::Text:
		return size_t{pair->count} + 1;
	case Kind::Texts:
		return texts_size(pair);
	case Kind::List:
	case Kind::Lists: {
		size_t size = 0;
		for (uint32_t i = 0; i < pair->count; i++)
			size += packed_size(&lists_of(pair, info)[i]);
		return size;
	}
	default:
		return size_t{pair->count} * info.width;
	}
}

size_t packed_size(attrlist *list)
{
	size_t size = sizeof(uint32_t);
	for (const attrpair *pair = first_of(list); pair != nullptr; pair = after(list, pair))
		size += sizeof(PairHeader) + pair->name_length + 1 + value_size(pair, info_of(pair->type));
	return size;
}

char *write_list(char *at, attrlist *list);

char *write_texts(char *at, const attrpair *pair)
{
	for (uint32_t i = 0; i < pair->count; i++) {
		size_t length = strlen(pair->value.texts[i]);
		store(at, htole32(static_cast<uint32_t>(length)));
		copy_bytes(at + sizeof(uint32_t), pair->value.texts[i], length + 1);
		at += sizeof(uint32_t) + length + 1;
	}
	return at;
}

char *write_value(char *at, const attrpair *pair, TypeInfo info)
{
	switch (info.kind) {
	case Kind::Text:
		copy_bytes(at, data_of(pair, info), size_t{pair->count} + 1);
		return at + pair->count + 1;
	case Kind::Texts:
		return write_texts(at, pair);
	case Kind::List:
	case Kind::Lists:
		for (uint32_t i = 0; i < pair->count; i++)
			at = write_list(at, &lists_of(pair, info)[i]);
		return at;
	default:
		copy_numbers(at, data_of(pair, info), pair->count, info.width);
		return at + size_t{pair->count} * info.width;
	}
}

char *write_list(char *at, attrlist *list)
{
	store(at, htole32(list->count));
	at += sizeof(uint32_t);
	for (const attrpair *pair = first_of(list); pair != nullptr; pair = after(list, pair)) {
		size_t name_size = size_t{pair->name_length} + 1;
		store(at, PairHeader{htole32(pair->count), htole16(pair->name_length), pair->type, 0});
		copy_words(at + sizeof(PairHeader), name_of(pair), name_size);
		at = write_value(at + sizeof(PairHeader) + name_size, pair, info_of(pair->type));
	}
	return at;
}

} // namespace

} // namespace atl

int attrlist_pack(attrlist_t *list, char **bufp, size_t *lenp, int encoding, int zero)
{
	using namespace atl;
	if (list == nullptr || bufp == nullptr || *bufp != nullptr || lenp == nullptr)
		return EINVAL;
	if (encoding != ATL_ENCODE_XDR || zero != 0)
		return EINVAL;
	size_t size = sizeof(packed_start) + packed_size(list);
	auto *buf = static_cast<char *>(malloc(size + 7)); // names are written by words
	if (buf == nullptr)
		return ENOMEM;
	memcpy(buf, packed_start, sizeof(packed_start));
	(void) write_list(buf + sizeof(packed_start), list); // its end was measured
	*bufp = buf;
	*lenp = size;
	return 0;
}
