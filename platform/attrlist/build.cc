// Building a whole list at once, in one block of the size that its drafts need.
#include <cstdlib>

#include "attrlist/list.h"

namespace {

using atl::Kind;
using atl::TypeInfo;

// What is drafted: texts by length, numbers as they are, lists by their own drafts.
struct Drafts {
	const attrdraft_t *items;
	uint32_t count;
};

const attrtext_t *texts_of(const attrdraft_t &draft)
{
	return static_cast<const attrtext_t *>(draft.elements);
}

Drafts list_of(const attrdraft_t &draft)
{
	return {static_cast<const attrdraft_t *>(draft.elements), draft.count};
}

bool is_drafted(TypeInfo info, const attrdraft_t &draft)
{
	bool known = info.kind == Kind::Numbers || info.kind == Kind::Text || info.kind == Kind::Texts ||
		     info.kind == Kind::List;
	bool one = info.kind != Kind::Text || draft.count == 1;
	return known && one && draft.name.length <= ATTRLIST_NAME_MAX && draft.count <= ATTRLIST_ELEMENTS_MAX;
}

size_t back_of(TypeInfo info, const attrdraft_t &draft)
{
	if (info.kind == Kind::Text)
		return atl::text_size(texts_of(draft)->length);
	size_t size = 0;
	for (uint32_t i = 0; info.kind == Kind::Texts && i < draft.count; i++)
		size += texts_of(draft)[i].length + 1;
	return size;
}

size_t front_of(TypeInfo info, const attrdraft_t &draft)
{
	return info.kind == Kind::List ? sizeof(attrlist) : atl::front_size(info, draft.count);
}

// Adds up what the records take; false if the drafts aren't right.
bool measure(Drafts drafts, int level, size_t *size)
{
	if (level > ATTRLIST_DEPTH_MAX || drafts.count > ATTRDRAFT_PAIRS_MAX)
		return false;
	for (uint32_t i = 0; i < drafts.count; i++) {
		const attrdraft_t &draft = drafts.items[i];
		TypeInfo info = atl::info_of(draft.type);
		if (!is_drafted(info, draft))
			return false;
		*size += atl::record_size(front_of(info, draft), draft.name.length, back_of(info, draft));
		if (info.kind == Kind::List && !measure(list_of(draft), level + 1, size))
			return false;
	}
	return true;
}

// Most texts are short: two copies that may overlap cost less than a call.
template <typename Word>
void copy_ends(char *to, const char *from, size_t length)
{
	Word first;
	Word last;
	memcpy(&first, from, sizeof(Word));
	memcpy(&last, from + length - sizeof(Word), sizeof(Word));
	memcpy(to, &first, sizeof(Word));
	memcpy(to + length - sizeof(Word), &last, sizeof(Word));
}

char *put_text(char *to, const attrtext_t &text)
{
	size_t length = text.length;
	if (length > 16)
		memcpy(to, text.text, length);
	else if (length >= 8)
		copy_ends<uint64_t>(to, text.text, length);
	else if (length >= 4)
		copy_ends<uint32_t>(to, text.text, length);
	else
		for (size_t i = 0; i < length; i++)
			to[i] = text.text[i];
	to[length] = '\0';
	return to + length + 1;
}

// The block being filled: records are cut from it one behind the other.
struct Block {
	attrlist *root;
	char *at;
};

void fill(Block *block, attrlist *list, Drafts drafts);

// Gives the end of the record.
char *set_value(attrlist *list, attrpair *pair, TypeInfo info, const attrdraft_t &draft, char *front)
{
	char *behind = atl::name_of(pair) + draft.name.length + 1;
	const attrtext_t *texts = texts_of(draft);
	switch (info.kind) {
	case Kind::Text:
		pair->count = static_cast<uint32_t>(texts->length);
		if (atl::text_size(texts->length) == 0) {
			(void) put_text(pair->value.bytes, *texts);
			return behind;
		}
		pair->value.text = behind;
		return put_text(behind, *texts);
	case Kind::Texts:
		pair->value.texts = reinterpret_cast<char **>(front);
		for (uint32_t i = 0; i < draft.count; i++) {
			pair->value.texts[i] = behind;
			behind = put_text(behind, texts[i]);
		}
		return behind;
	case Kind::List:
		pair->count = 1;
		pair->value.list = reinterpret_cast<attrlist *>(front);
		atl::start_list(pair->value.list, list);
		return behind;
	default:
		break;
	}
	char *to = front;
	if (front == reinterpret_cast<char *>(pair))
		to = pair->value.bytes;
	else
		pair->value.data = front;
	size_t bytes = draft.count * info.width;
	if (bytes == sizeof(uint64_t))
		memcpy(to, draft.elements, sizeof(uint64_t));
	else if (bytes == sizeof(uint32_t))
		memcpy(to, draft.elements, sizeof(uint32_t));
	else if (bytes > 0)
		memcpy(to, draft.elements, bytes);
	return behind;
}

attrpair *put_pair(Block *block, attrlist *list, TypeInfo info, const attrdraft_t &draft)
{
	char *front = block->at;
	auto *pair = reinterpret_cast<attrpair *>(front + front_of(info, draft));
	pair->value.data = nullptr;
	pair->count = draft.count;
	pair->name_length = static_cast<uint16_t>(draft.name.length);
	pair->type = static_cast<uint8_t>(draft.type);
	pair->flags = 0;
	(void) put_text(atl::name_of(pair), draft.name);
	char *end = set_value(list, pair, info, draft, front);
	block->at = front + atl::rounded(static_cast<size_t>(end - front));
	return pair;
}

void fill(Block *block, attrlist *list, Drafts drafts)
{
	attrpair **next = nullptr; // of the pair before
	attrpair *first = nullptr;
	for (uint32_t i = 0; i < drafts.count; i++) {
		const attrdraft_t &draft = drafts.items[i];
		TypeInfo info = atl::info_of(draft.type);
		attrpair *pair = put_pair(block, list, info, draft);
		if (info.kind == Kind::List)
			fill(block, pair->value.list, list_of(draft));
		(next != nullptr ? *next : first) = pair;
		next = &pair->next;
		list->last = pair;
	}
	list->count = drafts.count;
	if (next != nullptr)
		*next = first;
}

} // namespace

int attrlist_build(attrlist_t **listp, const attrdraft_t *drafts, uint_t count)
{
	if (listp == nullptr || (drafts == nullptr && count > 0))
		return EINVAL;
	size_t size = 0;
	if (!measure({drafts, count}, 1, &size))
		return EINVAL;
	auto *list = static_cast<attrlist *>(malloc(sizeof(attrlist) + size));
	if (list == nullptr)
		return ENOMEM;
	*list = {};
	list->level = 1;
	Block block = {list, reinterpret_cast<char *>(list + 1)};
	fill(&block, list, {drafts, count});
	*listp = list;
	return 0;
}
