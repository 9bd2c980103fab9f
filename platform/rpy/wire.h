// The repository's protocol: one request and one reply a call, both flat bytes. The client and the daemon share this page;
// docs/formats/repository-protocol.md shows one exchange. Nothing here trusts what it reads.
#ifndef MERIDON_RPY_WIRE_H
#define MERIDON_RPY_WIRE_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <meridon/rpy.h>

namespace rpy {

constexpr uint32_t magic = 0x31595052; // "RPY1"
constexpr size_t name_max = RPY_NAME_MAX;

// What a request asks for. A request is the magic, the number of one of these, and what its comment lists; a reply is the
// magic, an error number, and, if that is RPY_ERROR_NONE, what stands after the arrow. `parent` is a kind and an id. A `change` is a
// random u64 of the client's: as long as the daemon runs, it knows for each group the change that made it or committed to it
// last. 0: none.
enum class Op : uint32_t {
	status,          // -> pid u64, format u32, writable u32, file text, groups u64, file bytes u64
	decode,          // service text, instance text or empty -> service id u64, instance id u64
	list_services,   // after id u64 -> names
	list_instances,  // service u64, after id u64 -> names
	list_snapshots,  // instance u64, after id u64 -> names
	add_service,     // name text -> id u64
	add_instance,    // service u64, name text -> id u64
	delete_entity,   // id u64 of a service or an instance; one that holds something needs `all` u32
	get_group,       // parent, name text -> group
	read_group,      // id u64 -> group
	list_groups,     // parent, filter u32, text, after id u64 -> more u32, count u32, groups
	add_group,       // parent, name text, type text, flags u32, change -> group
	delete_group,    // id u64
	commit,          // group u64, version u64, count u32, entries, change -> 1, or 0 if the version is another one
	get_snapshot,    // instance u64, name text -> id u64
	take_snapshot,   // instance u64, name text, replace u32 -> id u64
	delete_snapshot, // id u64
	revert_snapshot, // id u64: the instance holds what the snapshot holds
	verify,          // -> findings text
	backup,          // -> the store's bytes
	read_batch,      // texts, each a whole batchable request -> the replies, as texts
	withdraw_group,  // parent, name text or empty, change: the group there, or `parent`, goes if that is all of it
	batch, // count u32, conditions, count u32, steps, change -> outcome u32, its number u32, error u32, revision u64
	count_
};

// Where groups hang.
enum class Parent : uint32_t { service = 1, instance, group, snapshot, frozen };

// Which groups a listing gives. The text is a name, a type, or what a type begins with.
enum class Filter : uint32_t { all, name_without_case, type, type_prefix };

// What an entry of a commit does.
enum class Change : uint32_t { create, change, remove };

// A condition of a batch, and what follows its number.
enum class Expect : uint32_t {
	version, // group u64, version u64
	absent,  // parent, name text: there is no group of this name
};

// A step of a batch, and what follows its number. A `place` is a parent or, with 0 as its kind, the number of an earlier step, for
// the group that it added.
enum class Step : uint32_t {
	add, // place, name text, type text, flags u32
	commit, // place, version u64, count u32, entries. The version is that before the first step; of a new group it doesn't count
	remove, // group u64, all u32: 0 if nothing may hang below it
};

// What became of a batch: carried out; not, since a condition doesn't hold or a group has another version than its commit names;
// not, since a step can't be carried out, for what `error` says. The number is that of the condition or step, conditions first.
enum class Outcome : uint32_t { done, conflict, failed };

constexpr uint32_t batch_most = RPY_BATCH_MAX; // conditions, and steps

// The members of one page: groups of a listing, or names. A page ends before `page_most` once it has `page_bytes` and
// `page_least` members, or if the daemon gets no more memory for its reader. Each page but the last has a member.
constexpr uint32_t page_most = 1024;
constexpr uint32_t page_least = 256;
constexpr size_t page_bytes = 4U << 20;

// The most bytes that the properties of a group have together, and so the longest reply: a page ends after `page_bytes_most`
// with the group that went beyond it.
constexpr size_t group_bytes_max = 256U << 20;
constexpr size_t page_bytes_most = 64U << 20;
constexpr size_t reply_max = group_bytes_max + page_bytes_most + page_bytes;

// How deep groups nest.
constexpr int depth_max = 64;

// Takes bytes off a block. Once something doesn't fit, everything after it is empty and ok() is false.
class Reader {
public:
	Reader() = default;
	Reader(const char *data, size_t size) : data_(data), left_(size) {}
	explicit Reader(std::string_view text) : Reader(text.data(), text.size()) {}

	bool ok() const { return ok_; }
	bool done() const { return ok_ && left_ == 0; }
	size_t left() const { return left_; }
	const char *here() const { return data_; }

	std::string_view bytes(size_t size)
	{
		if (size > left_) {
			ok_ = false;
			left_ = 0;
			return {};
		}
		std::string_view taken(data_, size);
		data_ += size;
		left_ -= size;
		return taken;
	}
	uint32_t u32() { return number<uint32_t>(); }
	uint64_t u64() { return number<uint64_t>(); }
	std::string_view text() { return bytes(u32()); }

private:
	template <typename T>
	T number()
	{
		std::string_view taken = bytes(sizeof(T));
		T value = 0;
		if (taken.size() == sizeof(T))
			memcpy(&value, taken.data(), sizeof(T));
		return value;
	}

	const char *data_ = nullptr;
	size_t left_ = 0;
	bool ok_ = true;
};

// Appends bytes. When memory runs out, ok() is false from then on.
class Writer {
public:
	Writer() = default;
	Writer(const Writer &) = delete;
	Writer &operator=(const Writer &) = delete;
	~Writer() { ::free(heap_); }

	bool ok() const { return ok_; }
	size_t size() const { return size_; }
	char *data() { return data_; }
	const char *data() const { return data_; }
	std::string_view view() const { return {data_, size_}; }

	void bytes(const void *data, size_t size)
	{
		if (size > room_ - size_ && !grow(size))
			return;
		if (size > 0)
			memcpy(data_ + size_, data, size);
		size_ += size;
	}
	void bytes(std::string_view text) { bytes(text.data(), text.size()); }
	void u32(uint32_t value) { bytes(&value, sizeof(value)); }
	void u64(uint64_t value) { bytes(&value, sizeof(value)); }
	void text(std::string_view text)
	{
		u32(static_cast<uint32_t>(text.size()));
		bytes(text);
	}
	// Reserves room for a number whose value is known later, and puts it there.
	size_t reserve()
	{
		size_t at = size_;
		u32(0);
		return at;
	}
	void patch(size_t at, uint32_t value)
	{
		if (ok_)
			memcpy(data_ + at, &value, sizeof(value));
	}
	// Begins again, also after memory has run out.
	void clear()
	{
		::free(heap_);
		heap_ = nullptr;
		data_ = small_;
		size_ = 0;
		room_ = sizeof(small_);
		ok_ = true;
	}
	// Takes back what was written after `size` bytes.
	void cut(size_t size) { size_ = size; }

	// How much fits where it lies now.
	size_t room() const { return room_; }
	// Continues in memory of another owner, which has room for what is there and outlives this.
	void move_to(char *memory, size_t room)
	{
		if (!ok_)
			return;
		memcpy(memory, data_, size_);
		::free(heap_);
		heap_ = nullptr;
		data_ = memory;
		room_ = room;
	}
	// Whether it lies in memory of its own, which goes with it.
	bool owns() const { return heap_ != nullptr || data_ == small_; }
	// Continues in memory of its own. False: there is none.
	bool own() { return owns() || grow(0); }
	// Makes room for so many more bytes.
	bool make_room(size_t more) { return more <= room_ - size_ || grow(more); }

private:
	bool grow(size_t more)
	{
		if (!ok_)
			return false;
		size_t room = room_ * 2 > size_ + more ? room_ * 2 : size_ + more;
		char *larger = static_cast<char *>(::realloc(heap_, room));
		if (larger == nullptr) {
			ok_ = false;
			size_ = room_ = 0; // nothing more is taken in
			return false;
		}
		if (heap_ == nullptr)
			memcpy(larger, data_, size_);
		heap_ = data_ = larger;
		room_ = room;
		return true;
	}

	char small_[512];
	char *heap_ = nullptr;
	char *data_ = small_;
	size_t size_ = 0;
	size_t room_ = sizeof(small_);
	bool ok_ = true;
};

inline void put_parent(Writer *out, Parent kind, uint64_t id)
{
	out->u32(static_cast<uint32_t>(kind));
	out->u64(id);
}

// ---- Names, properties, groups ----

// The name of a thing: 1 to 255 bytes, no '/', no NUL.
inline bool is_name(std::string_view name)
{
	return !name.empty() && name.size() < name_max && name.find('/') == name.npos && name.find('\0') == name.npos;
}

// A service's name has components, each a name. A colon would begin an instance's in a locator.
bool is_service_name(std::string_view name);

inline bool is_type(uint32_t type)
{
	return (type >= RPY_TYPE_BOOLEAN && type <= RPY_TYPE_OPAQUE) || type == RPY_TYPE_USTRING ||
	       (type >= RPY_TYPE_URI && type <= RPY_TYPE_LOCATOR) ||
	       (type >= RPY_TYPE_HOST && type <= RPY_TYPE_NET_ADDR);
}

// Values of these types are 8 bytes; all others are texts.
inline bool is_number(uint32_t type)
{
	return type >= RPY_TYPE_BOOLEAN && type <= RPY_TYPE_INTEGER;
}

// A property as it lies in a block: a name, a type, and its values one after another.
struct Property {
	std::string_view name;
	uint32_t type = 0;
	uint32_t count = 0;
	std::string_view values;
};

inline void put_property(Writer *out, const Property &property)
{
	out->text(property.name);
	out->u32(property.type);
	out->u32(property.count);
	out->text(property.values);
}

inline Property take_property(Reader *in)
{
	Property property;
	property.name = in->text();
	property.type = in->u32();
	property.count = in->u32();
	property.values = in->text();
	return property;
}

// Whether a property has a sound name and type, and as many values of the type as it says.
bool is_sound(const Property &property);

// Whether a block is a list of sound properties: a count, and as many properties.
bool are_properties(std::string_view block);

// A group as it lies in a block.
struct Group {
	uint64_t id = 0;
	uint64_t version = 0;
	uint32_t flags = 0;
	std::string_view name;
	std::string_view type;
	std::string_view properties; // a count, and as many properties
};

inline void put_group(Writer *out, const Group &group)
{
	out->u64(group.id);
	out->u64(group.version);
	out->u32(group.flags);
	out->text(group.name);
	out->text(group.type);
	out->text(group.properties);
}

// How many bytes put_group() writes.
inline size_t size_of(const Group &group)
{
	return 2 * sizeof(uint64_t) + 4 * sizeof(uint32_t) + group.name.size() + group.type.size() +
	       group.properties.size();
}

// A group that isn't sound makes the reader fail.
bool take_group(Reader *in, Group *group);

} // namespace rpy

#endif
