// Attribute lists: what each operation costs, beside what the memory alone would cost.
//
// A limit moves the bytes only: a copy of as many bytes; for packing and unpacking in one row also code written by hand for
// this data set, which packs names, types and values into big-endian fields and unpacks them, checked, into one growing block.
#include <endian.h>
#include <malloc.h>
#include <memory>

#include <benchmark/benchmark.h>
#include <meridon/attrlist.h>

#include "dataset.h"

namespace {

constexpr uint32_t object_count = 10000;

// Memory that was given back stays with the process: the rows compare code, not the page faults of fresh memory.
[[maybe_unused]] const bool memory_is_kept =
    mallopt(M_MMAP_THRESHOLD, 32 << 20) == 1 && mallopt(M_TRIM_THRESHOLD, 1 << 30) == 1;

struct FreeList {
	void operator()(attrlist_t *list) const { attrlist_free(list); }
};
using List = std::unique_ptr<attrlist_t, FreeList>;

void must(int error)
{
	if (error != 0)
		abort();
}

List make_list()
{
	attrlist_t *list;
	must(attrlist_alloc(&list, ATL_UNIQUE_NAME, 0));
	return List(list);
}

// Fills a list with one object, as a reader of lines does.
void fill(attrlist_t *list, const dataset::Object &o)
{
	attrlist_t *ids, *props;
	must(attrlist_add_new_attrlist(list, "object-idlist", &ids));
	must(attrlist_add_string(ids, "linkname", o.linkname));
	must(attrlist_add_string(ids, "zone", o.zone));
	must(attrlist_add_new_attrlist(list, "object-props", &props));
	boolean_t on = o.on ? B_TRUE : B_FALSE;
	char *tags[] = {const_cast<char *>(o.site), const_cast<char *>(o.role)};
	must(attrlist_add_uint32_array(props, "mtu", &o.mtu, 1));
	must(attrlist_add_boolean_array(props, "on", &on, 1));
	must(attrlist_add_string_array(props, "tags", tags, 2));
	must(attrlist_add_int64_array(props, "ctr", &o.ctr, 1));
}

List object_list(uint32_t count)
{
	List list = make_list();
	std::vector<List> objects;
	std::vector<attrlist_t *> pointers;
	for (const dataset::Object &o : dataset::objects(count)) {
		objects.push_back(make_list());
		fill(objects.back().get(), o);
		pointers.push_back(objects.back().get());
	}
	must(attrlist_add_uint64(list.get(), "object-count", count));
	must(attrlist_add_attrlist_array(list.get(), "object-list", pointers.data(), count));
	return list;
}

std::vector<std::string> names(size_t count)
{
	std::vector<std::string> all;
	for (size_t i = 0; i < count; i++)
		all.push_back("name" + std::to_string(i * 7919 % count));
	return all;
}

// ---- One object ----

// A scratch list filled, copied and the copy freed: what a walk pays for each object.
void object_filled_and_copied(benchmark::State &state)
{
	dataset::Object o = dataset::object(23);
	List scratch = make_list();
	for (auto _ : state) {
		must(attrlist_clear(scratch.get()));
		fill(scratch.get(), o);
		attrlist_t *copy;
		must(attrlist_dup(scratch.get(), &copy, 0));
		benchmark::DoNotOptimize(copy);
		attrlist_free(copy);
	}
}
BENCHMARK(object_filled_and_copied);

// The same object from drafts, as the reader of a database makes it.
void object_built(benchmark::State &state)
{
	dataset::Object o = dataset::object(23);
	auto text = [](const char *bytes) { return attrtext_t{bytes, strlen(bytes)}; };
	boolean_t on = o.on ? B_TRUE : B_FALSE;
	attrtext_t values[] = {text(o.linkname), text(o.zone)}, tags[] = {text(o.site), text(o.role)};
	attrdraft_t ids[] = {
	    {text("linkname"), DATA_TYPE_STRING, 1, &values[0]}, {text("zone"), DATA_TYPE_STRING, 1, &values[1]}};
	attrdraft_t props[] = {{text("mtu"), DATA_TYPE_UINT32_ARRAY, 1, &o.mtu},
	    {text("on"), DATA_TYPE_BOOLEAN_ARRAY, 1, &on}, {text("tags"), DATA_TYPE_STRING_ARRAY, 2, tags},
	    {text("ctr"), DATA_TYPE_INT64_ARRAY, 1, &o.ctr}};
	attrdraft_t parts[] = {
	    {text("object-idlist"), DATA_TYPE_ATTRLIST, 2, ids}, {text("object-props"), DATA_TYPE_ATTRLIST, 4, props}};
	for (auto _ : state) {
		attrlist_t *object;
		must(attrlist_build(&object, parts, 2));
		benchmark::DoNotOptimize(object);
		attrlist_free(object);
	}
}
BENCHMARK(object_built);

void object_filled(benchmark::State &state)
{
	dataset::Object o = dataset::object(23);
	List scratch = make_list();
	for (auto _ : state) {
		must(attrlist_clear(scratch.get()));
		fill(scratch.get(), o);
	}
}
BENCHMARK(object_filled);

void object_copied(benchmark::State &state)
{
	List list = make_list();
	fill(list.get(), dataset::object(23));
	for (auto _ : state) {
		attrlist_t *copy;
		must(attrlist_dup(list.get(), &copy, 0));
		benchmark::DoNotOptimize(copy);
		attrlist_free(copy);
	}
}
BENCHMARK(object_copied);

void object_limit(benchmark::State &state)
{
	std::string bytes(400, 'x');
	for (auto _ : state) {
		void *copy = malloc(bytes.size());
		memcpy(copy, bytes.data(), bytes.size());
		benchmark::DoNotOptimize(copy);
		free(copy);
	}
}
BENCHMARK(object_limit);

// ---- A list of so many pairs ----

void pairs_added(benchmark::State &state)
{
	std::vector<std::string> all = names(static_cast<size_t>(state.range(0)));
	for (auto _ : state) {
		List list = make_list();
		for (const std::string &name : all)
			must(attrlist_add_uint32(list.get(), name.c_str(), 1));
	}
	state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(pairs_added)->Arg(10)->Arg(10000);

void pairs_limit(benchmark::State &state)
{
	std::vector<std::string> all = names(static_cast<size_t>(state.range(0)));
	size_t room = all.size() * 40;
	for (auto _ : state) {
		auto *block = static_cast<char *>(malloc(room));
		char *at = block;
		for (const std::string &name : all) {
			memcpy(at, name.c_str(), name.size() + 1);
			at += 40;
		}
		benchmark::DoNotOptimize(block);
		benchmark::ClobberMemory();
		free(block);
	}
	state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(pairs_limit)->Arg(10)->Arg(10000);

void pairs_looked_up(benchmark::State &state)
{
	std::vector<std::string> all = names(static_cast<size_t>(state.range(0)));
	List list = make_list();
	for (const std::string &name : all)
		must(attrlist_add_uint32(list.get(), name.c_str(), 1));
	for (auto _ : state)
		for (const std::string &name : all) {
			uint32_t value;
			must(attrlist_lookup_uint32(list.get(), name.c_str(), &value));
			benchmark::DoNotOptimize(value);
		}
	state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(pairs_looked_up)->Arg(10)->Arg(10000);

void pairs_copied(benchmark::State &state)
{
	std::vector<std::string> all = names(static_cast<size_t>(state.range(0)));
	List list = make_list();
	for (const std::string &name : all)
		must(attrlist_add_uint32(list.get(), name.c_str(), 1));
	for (auto _ : state) {
		attrlist_t *copy;
		must(attrlist_dup(list.get(), &copy, 0));
		attrlist_free(copy);
	}
	state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(pairs_copied)->Arg(10)->Arg(10000);

// ---- Packing and unpacking an object list, beside code written by hand ----

void objects_packed(benchmark::State &state)
{
	List list = object_list(object_count);
	size_t size = 0;
	for (auto _ : state) {
		char *bytes = nullptr;
		must(attrlist_pack(list.get(), &bytes, &size, ATL_ENCODE_XDR, 0));
		benchmark::DoNotOptimize(bytes);
		free(bytes);
	}
	state.counters["bytes"] = static_cast<double>(size);
}
BENCHMARK(objects_packed)->Unit(benchmark::kMicrosecond);

void objects_unpacked(benchmark::State &state)
{
	List list = object_list(object_count);
	char *bytes = nullptr;
	size_t size = 0;
	must(attrlist_pack(list.get(), &bytes, &size, ATL_ENCODE_XDR, 0));
	for (auto _ : state) {
		attrlist_t *back;
		must(attrlist_unpack(bytes, size, &back, 0));
		benchmark::DoNotOptimize(back);
		attrlist_free(back);
	}
	free(bytes);
}
BENCHMARK(objects_unpacked)->Unit(benchmark::kMicrosecond);

void objects_packed_and_unpacked(benchmark::State &state)
{
	List list = object_list(object_count);
	for (auto _ : state) {
		char *bytes = nullptr;
		size_t size = 0;
		must(attrlist_pack(list.get(), &bytes, &size, ATL_ENCODE_XDR, 0));
		attrlist_t *back;
		must(attrlist_unpack(bytes, size, &back, 0));
		benchmark::DoNotOptimize(back);
		attrlist_free(back);
		free(bytes);
	}
}
BENCHMARK(objects_packed_and_unpacked)->Unit(benchmark::kMicrosecond);

// A block that doubles: where both ways of the hand-written code put their results.
class Block {
public:
	~Block() { free(bytes_); }
	char *take(size_t size)
	{
		if (size > capacity_ - used_)
			grow(size);
		char *at = bytes_ + used_;
		used_ += size;
		return at;
	}
	void put_u32(uint32_t value)
	{
		value = htobe32(value);
		memcpy(take(4), &value, 4);
	}
	void put_u64(uint64_t value)
	{
		value = htobe64(value);
		memcpy(take(8), &value, 8);
	}
	// A length, the bytes, and zeros up to a multiple of 4.
	void put_text(const char *text)
	{
		size_t length = strlen(text);
		put_u32(static_cast<uint32_t>(length));
		size_t padded = (length + 3) & ~size_t{3};
		char *at = take(padded);
		memset(at + length, 0, padded - length);
		memcpy(at, text, length);
	}
	const char *bytes() const { return bytes_; }
	size_t used() const { return used_; }

private:
	void grow(size_t size)
	{
		capacity_ = (capacity_ + size + 2048) * 2;
		bytes_ = static_cast<char *>(realloc(bytes_, capacity_));
		if (bytes_ == nullptr)
			abort();
	}
	char *bytes_ = nullptr;
	size_t used_ = 0;
	size_t capacity_ = 0;
};

// What stands in front of every value: name, type, count.
void put_head(Block &out, const char *name, uint32_t type, uint32_t count)
{
	out.put_text(name);
	out.put_u32(type);
	out.put_u32(count);
}

void write_by_hand(Block &out, const dataset::Object &o)
{
	put_head(out, "object-idlist", DATA_TYPE_ATTRLIST, 2);
	put_head(out, "linkname", DATA_TYPE_STRING, 1);
	out.put_text(o.linkname);
	put_head(out, "zone", DATA_TYPE_STRING, 1);
	out.put_text(o.zone);
	put_head(out, "object-props", DATA_TYPE_ATTRLIST, 4);
	put_head(out, "mtu", DATA_TYPE_UINT32_ARRAY, 1);
	out.put_u32(o.mtu);
	put_head(out, "on", DATA_TYPE_BOOLEAN_ARRAY, 1);
	out.put_u32(o.on);
	put_head(out, "tags", DATA_TYPE_STRING_ARRAY, 2);
	out.put_text(o.site);
	out.put_text(o.role);
	put_head(out, "ctr", DATA_TYPE_INT64_ARRAY, 1);
	out.put_u64(static_cast<uint64_t>(o.ctr));
}

// Reads with every length checked; `good` stays false after the first fault.
struct Reader {
	const char *at;
	const char *end;
	bool good = true;

	const char *take(size_t size)
	{
		if (size > static_cast<size_t>(end - at)) {
			good = false;
			return end;
		}
		const char *from = at;
		at += size;
		return from;
	}
	uint32_t u32()
	{
		uint32_t value = 0;
		const char *from = take(4);
		if (good)
			memcpy(&value, from, 4);
		return be32toh(value);
	}
	uint64_t u64()
	{
		uint64_t value = 0;
		const char *from = take(8);
		if (good)
			memcpy(&value, from, 8);
		return be64toh(value);
	}
	// Copies a text behind the fields of the block, with a terminator.
	void text(Block &out)
	{
		uint32_t length = u32();
		const char *from = take((size_t{length} + 3) & ~size_t{3});
		if (!good || memchr(from, '\0', length) != nullptr) {
			good = false;
			return;
		}
		char *to = out.take(((size_t{length} + 8) & ~size_t{7}));
		memcpy(to, from, length);
		to[length] = '\0';
	}
};

struct Field {
	uint32_t type;
	uint32_t count;
	uint64_t value;
};

void read_by_hand(Reader &in, Block &out, int fields);

void read_value(Reader &in, Block &out, uint32_t type, uint32_t count)
{
	switch (type) {
	case DATA_TYPE_ATTRLIST:
		return read_by_hand(in, out, static_cast<int>(count));
	case DATA_TYPE_STRING:
	case DATA_TYPE_STRING_ARRAY:
		for (uint32_t i = 0; i < count && in.good; i++)
			in.text(out);
		return;
	case DATA_TYPE_INT64_ARRAY:
		for (uint32_t i = 0; i < count && in.good; i++) {
			uint64_t value = in.u64();
			memcpy(out.take(8), &value, 8);
		}
		return;
	default:
		for (uint32_t i = 0; i < count && in.good; i++) {
			uint64_t value = in.u32();
			memcpy(out.take(8), &value, 8);
		}
	}
}

void read_by_hand(Reader &in, Block &out, int fields)
{
	for (int i = 0; i < fields && in.good; i++) {
		in.text(out);
		Field field = {in.u32(), in.u32(), 0};
		memcpy(out.take(sizeof(field)), &field, sizeof(field));
		read_value(in, out, field.type, field.count);
	}
}

void objects_packed_and_unpacked_limit(benchmark::State &state)
{
	std::vector<dataset::Object> all = dataset::objects(object_count);
	size_t size = 0;
	for (auto _ : state) {
		Block packed;
		for (const dataset::Object &o : all)
			write_by_hand(packed, o);
		Reader in = {packed.bytes(), packed.bytes() + packed.used()};
		Block back;
		for (uint32_t i = 0; i < object_count; i++)
			read_by_hand(in, back, 2);
		if (!in.good || in.at != in.end)
			abort();
		benchmark::DoNotOptimize(back.bytes());
		size = packed.used();
	}
	state.counters["bytes"] = static_cast<double>(size);
}
BENCHMARK(objects_packed_and_unpacked_limit)->Unit(benchmark::kMicrosecond);

// The packed bytes alone, copied.
void bytes_copied(benchmark::State &state)
{
	List list = object_list(object_count);
	char *bytes = nullptr;
	size_t size = 0;
	must(attrlist_pack(list.get(), &bytes, &size, ATL_ENCODE_XDR, 0));
	for (auto _ : state) {
		auto *copy = static_cast<char *>(malloc(size));
		memcpy(copy, bytes, size);
		benchmark::DoNotOptimize(copy);
		free(copy);
	}
	free(bytes);
}
BENCHMARK(bytes_copied)->Name("objects_packed_limit")->Unit(benchmark::kMicrosecond);
BENCHMARK(bytes_copied)->Name("objects_unpacked_limit")->Unit(benchmark::kMicrosecond);

} // namespace
