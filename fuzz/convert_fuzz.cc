// Tables and lists made from the input's bytes. No table may lead a conversion out of its arrays, a property that fails
// stays as it was, and what can come back from its stored form does.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <strings.h>
#include <vector>

#include "base/guards.h"
#include "libostrel.h"

namespace {

void demand(bool condition)
{
	if (!condition)
		abort();
}

// Hands out the input; zeroes behind its end.
class Bytes {
public:
	Bytes(const uint8_t *data, size_t size) : data_(data), end_(data + size) {}
	uint8_t next() { return data_ == end_ ? 0 : *data_++; }
	template <typename T, size_t N>
	T pick(const T (&from)[N])
	{
		return from[next() % N];
	}

private:
	const uint8_t *data_, *end_;
};

constexpr const char *property_names[] = {"p0", "p1", "p2", "p3"};
constexpr const char *value_names[] = {"a", "A", "b", "c", "?", "", "dd", "0x10", "true", "x,y"};
constexpr const char *texts[] = {
    "a", "B", "c", "dd", "true", "False", "7", "0x10", "-1", "99999999999999999999", "", "a,b", ",,", "a, b;c", "what"};
constexpr const char *delimiters[] = {",", ", ", ";", "", ",", nullptr};
constexpr uint64_t types[] = {DATA_TYPE_STRING, DATA_TYPE_BOOLEAN, DATA_TYPE_INT64, DATA_TYPE_UINT64, DATA_TYPE_UNKNOWN,
    DATA_TYPE_STRING, DATA_TYPE_STRING, DATA_TYPE_INT32, 1000};
constexpr uint64_t numbers[] = {1, 2, 4, 0, 3, 7, UINT64_MAX};
constexpr uint_t counts[] = {1, 2, 3, 0, 1, 1, 64, 127, 128, 129, 300};

// A table of values, and one of properties whose entries are larger than a descriptor; each in a block of its own, so that
// a step too far is seen.
struct Table {
	struct Entry {
		ostrel_propdesc_t desc;
		uint64_t own;
	};
	std::vector<ostrel_valdesc_t> vals[3];
	std::vector<Entry> entries;

	explicit Table(Bytes &bytes)
	{
		for (auto &table : vals) {
			size_t copies = bytes.next() % 16 == 0 ? 140 : 1;
			for (int left = bytes.next() % 5; left > 0; left--)
				table.insert(table.end(), copies,
				    {const_cast<char *>(bytes.pick(value_names)), nullptr, bytes.pick(numbers)});
			table.push_back({nullptr, nullptr, 0});
			table.shrink_to_fit();
		}
		for (int left = bytes.next() % 6; left > 0; left--) {
			Entry entry = {};
			entry.desc.npd_name = const_cast<char *>(bytes.pick(property_names));
			entry.desc.npd_type = bytes.pick(types);
			entry.desc.npd_flags = bytes.next() % 8;
			entry.desc.npd_delimiters = const_cast<char *>(bytes.pick(delimiters));
			uint8_t which = bytes.next() % 4;
			entry.desc.npd_vals = which < 3 ? vals[which].data() : nullptr;
			entries.push_back(entry);
		}
		entries.push_back({});
		entries.shrink_to_fit();
	}
	int to_persist(attrlist_t *list) const
	{
		return ostrel_proplist_convert_to_persist(list, sizeof(Entry), entries.data());
	}
	int from_persist(attrlist_t *list) const
	{
		return ostrel_proplist_convert_from_persist(list, sizeof(Entry), entries.data());
	}
};

void add_property(attrlist_t *list, Bytes &bytes)
{
	const char *name = bytes.pick(property_names);
	uint_t count = bytes.pick(counts);
	uint8_t kind = bytes.next() % 4;
	std::string text;
	std::vector<uint64_t> values;
	std::vector<char *> members;
	for (uint_t i = 0; i < count; i++) {
		const char *member = bytes.pick(texts);
		text += std::string(i % 2, ',') + member;
		members.push_back(const_cast<char *>(member));
		values.push_back(bytes.pick(numbers));
	}
	switch (kind) {
	case 0:
		demand(attrlist_add_uint64_array(list, name, values.data(), count) == 0);
		break;
	case 1:
		demand(attrlist_add_string_array(list, name, members.data(), count) == 0);
		break;
	case 2:
		demand(ostrel_atl_add_one_string(list, name, text.c_str()) == 0);
		break;
	default:
		demand(attrlist_add_string(list, name, text.c_str()) == 0);
	}
}

std::vector<uint64_t> numbers_of(attrlist_t *list, const char *name)
{
	uint64_t *array = nullptr;
	uint_t count = 0;
	return attrlist_lookup_uint64_array(list, name, &array, &count) == 0 ? std::vector(array, array + count)
									     : std::vector<uint64_t>();
}

std::vector<std::string> values_of(const char *text, const char *separators)
{
	std::vector<std::string> values;
	std::string value;
	for (size_t i = 0; i <= OSTREL_PROP_TEXT_MAX; i++) {
		bool at_end = text[i] == '\0' || i == OSTREL_PROP_TEXT_MAX;
		if (!at_end && strchr(separators, text[i]) == nullptr) {
			value += text[i];
			continue;
		}
		if (!value.empty())
			values.push_back(value);
		value.clear();
		if (at_end)
			break;
	}
	return values;
}

bool distinct_names(const ostrel_valdesc_t *vals)
{
	std::set<std::string> seen;
	for (; vals->nvd_name != nullptr; vals++) {
		std::string name = vals->nvd_name;
		for (char &c : name)
			c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
		if (name == "?" || !seen.insert(name).second)
			return false;
	}
	return true;
}

// What went to the store and came back without a failure, for a property that only this descriptor names.
void demand_back(const ostrel_propdesc_t &desc, attrlist_t *before, attrlist_t *after)
{
	char *text, *joined;
	if (desc.npd_type == DATA_TYPE_UNKNOWN || (desc.npd_flags & OSTREL_PROP_NO_CONVERT) != 0)
		return;
	if ((desc.npd_flags & OSTREL_PROP_DELIMITED) != 0) {
		if (ostrel_atl_get_one_string(before, desc.npd_name, &text) == 0 && desc.npd_delimiters[0] != '\0' &&
		    ostrel_atl_get_one_string(after, desc.npd_name, &joined) == 0)
			demand(values_of(text, desc.npd_delimiters) == values_of(joined, desc.npd_delimiters));
		return;
	}
	if (desc.npd_vals == nullptr || !distinct_names(desc.npd_vals))
		return;
	std::vector<uint64_t> values = numbers_of(before, desc.npd_name);
	bool one = values.size() == 1 || (desc.npd_flags & OSTREL_PROP_BITFIELD) == 0;
	if (!values.empty() && one)
		demand(numbers_of(after, desc.npd_name) == values);
}

AttrList copy_of(const AttrList &list)
{
	AttrList copy;
	demand(attrlist_dup(list.get(), copy.out(), 0) == 0);
	return copy;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	Bytes bytes(data, size);
	Table table(bytes);
	AttrList list;
	demand(attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0) == 0);
	for (int left = bytes.next() % 5; left > 0; left--)
		add_property(list.get(), bytes);

	AttrList stored = copy_of(list), read = copy_of(list);
	int error = table.from_persist(read.get());
	demand(error == 0 || error == EINVAL);
	error = table.to_persist(stored.get());
	demand(error == 0 || error == EINVAL);
	if (error != 0)
		return 0;
	AttrList back = copy_of(stored);
	if (table.from_persist(back.get()) != 0)
		return 0;
	std::map<std::string, int> named;
	for (const Table::Entry &entry : table.entries) {
		if (entry.desc.npd_name != nullptr)
			named[entry.desc.npd_name]++;
	}
	for (const Table::Entry &entry : table.entries) {
		if (entry.desc.npd_name != nullptr && named[entry.desc.npd_name] == 1)
			demand_back(entry.desc, list.get(), back.get());
	}
	return 0;
}
