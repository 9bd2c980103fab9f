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
	if (!known || draft.name.length > ATTRLIST_NAME_MAX || draft.count > ATTRLIST_ELEMENTS_MAX)
		return false;
	return info.kind != Kind::Text || (draft.count == 1 && texts_of(draft)->length <= ATTRLIST_ELEMENTS_MAX);
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

char *put_text(char *to, const attrtext_t &text)
{
	atl::copy_bytes(to, text.text, text.length);
	to[text.length] = '\0';
	return to + text.length + 1;
}

// The block being filled: records are cut from it one after the other.
struct Block {
	attrlist *root;
	char *at;
};

void fill(Block *block, attrlist *list, Drafts drafts);

// The value of a new pair, which is a pointer to the front of its record.
void set_value(attrlist *list, attrpair *pair, TypeInfo info, const attrdraft_t &draft)
{
	char *following = atl::name_of(pair) + draft.name.length + 1;
	switch (info.kind) {
	case Kind::Text:
		pair->value.text = following;
		(void) put_text(atl::lies_apart(pair, info) ? following : pair->value.bytes, *texts_of(draft));
		break;
	case Kind::Texts:
		for (uint32_t i = 0; i < draft.count; i++) {
			pair->value.texts[i] = following;
			following = put_text(following, texts_of(draft)[i]);
		}
		break;
	case Kind::List:
		atl::start_list(pair->value.list, list);
		break;
	default:
		atl::copy_padded(atl::lies_apart(pair, info) ? pair->value.data : pair->value.bytes, draft.elements,
		    draft.count * info.width);
	}
}

// What a pair counts: a text's bytes, and one list, whatever its pairs.
size_t count_of(TypeInfo info, const attrdraft_t &draft)
{
	if (info.kind == Kind::Text)
		return texts_of(draft)->length;
	return info.kind == Kind::List ? 1 : draft.count;
}

attrpair *put_pair(Block *block, attrlist *list, TypeInfo info, const attrdraft_t &draft)
{
	char *record = block->at;
	size_t front = front_of(info, draft);
	size_t size = atl::record_size(front, draft.name.length, back_of(info, draft));
	// However large, a record of this block goes with the block.
	uint8_t eighths = atl::EIGHTHS_MANY;
	if (size / 8 < atl::EIGHTHS_MANY)
		eighths = static_cast<uint8_t>(size / 8);
	auto *pair = reinterpret_cast<attrpair *>(record + front);
	pair->value.data = record;
	atl::set_head(pair, count_of(info, draft), draft.name.length, draft.type, eighths);
	(void) put_text(atl::name_of(pair), draft.name);
	set_value(list, pair, info, draft);
	block->at = record + size;
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
