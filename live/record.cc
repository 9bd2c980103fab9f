// Undo records: their bytes, their clock, and what they are compared by.
//
// Divisions: the first line; the list; time; objects.
#include "record.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/clock.h"
#include "base/files.h"
#include "libostrel_idlist.h"

// ---- The first line ----

namespace {

constexpr size_t line_size = 69;
constexpr size_t record_size_max = size_t{512} << 20; // a batch's lists twice over, and what packing adds
constexpr const char *states[] = {"prepared", "applied "};

void print_state(const UndoState &state, char (&line)[line_size + 1])
{
	(void) snprintf(line, sizeof line, "ostrel-rollback 1 %s %020" PRIu64 " %020" PRId64 "\n",
	    states[state.is_applied ? 1 : 0], state.deadline_ns, state.until);
}

// Strict: what isn't printed the same is no first line.
bool parse_state(const char *line, UndoState *state)
{
	uint64_t deadline = 0;
	int64_t until = 0;
	char word[9] = "";
	char text[line_size + 1];
	memcpy(text, line, line_size);
	text[line_size] = '\0';
	// No number of 20 digits is beyond these types without being printed differently.
	if (sscanf(text, "ostrel-rollback 1 %8s %" SCNu64 " %" SCNd64, word, &deadline, &until) != 3)
		return false;
	*state = {strcmp(word, "applied") == 0, deadline, until};
	char again[line_size + 1];
	print_state(*state, again);
	return memcmp(again, line, line_size) == 0;
}

} // namespace

ostrelx_error_t undo_write_state(int fd, const UndoState &state)
{
	char line[line_size + 1];
	print_state(state, line);
	ssize_t put;
	do
		put = pwrite(fd, line, line_size, 0);
	while (put == -1 && errno == EINTR);
	if (put == static_cast<ssize_t>(line_size))
		return OSTREL_SUCCESS;
	return put == -1 && errno == ENOSPC ? OSTREL_NO_MEMORY : OSTREL_FAILURE;
}

// ---- The list ----

namespace {

int add_list(attrlist_t *to, const char *name, attrlist_t *list)
{
	return list != nullptr ? attrlist_add_attrlist(to, name, list) : 0;
}

int pack_object(const UndoObject &object, attrlist_t *to)
{
	int error = attrlist_add_attrlist(to, "id", object.idl);
	error = error != 0 ? error : attrlist_add_uint64(to, "flags", object.flags);
	error = error != 0 ? error : add_list(to, "before", object.before);
	return error != 0 ? error : add_list(to, "after", object.after);
}

// Copies of the objects, as lists.
using Lists = GrowingArray<attrlist_t *, [](attrlist_t *&list) { attrlist_free(list); }>;

ostrelx_error_t pack_objects(const GrowingArray<UndoObject> &objects, Lists *lists)
{
	for (const UndoObject &object : objects) {
		AttrList list;
		int error = attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0);
		error = error != 0 ? error : pack_object(object, list.get());
		if (error != 0 || !lists->make_room())
			return error != 0 ? ostrel_errno2error(error) : OSTREL_NO_MEMORY;
		*lists->place() = list.release();
		lists->added();
	}
	return OSTREL_SUCCESS;
}

} // namespace

ostrelx_error_t UndoRecord::make(const UndoState &when, const UndoHead &parts, const GrowingArray<UndoObject> &changed)
{
	Lists lists;
	if (ostrelx_error_t bad = pack_objects(changed, &lists))
		return bad;
	AttrList made;
	int error = attrlist_alloc(made.out(), ATL_UNIQUE_NAME, 0);
	attrlist_t *list = made.get();
	error = error != 0 ? error : attrlist_add_string(list, "store", parts.store);
	error = error != 0 ? error : attrlist_add_string(list, "database", parts.database);
	error = error != 0 ? error : attrlist_add_int32(list, "enclave", parts.enclave);
	error = error != 0 ? error : attrlist_add_uint64(list, "flags", parts.db_flags);
	error = error != 0 ? error : attrlist_add_uint32(list, "uid", parts.uid);
	error = error != 0 ? error : attrlist_add_string(list, "boot", parts.boot);
	if (error == 0 && parts.run != nullptr)
		error = attrlist_add_string(list, "run", parts.run);
	const auto count = static_cast<uint_t>(lists.size());
	error = error != 0 ? error : attrlist_add_attrlist_array(list, "objects", lists.begin(), count);
	if (error != 0)
		return ostrel_errno2error(error);
	state = when;
	list_ = std::move(made);
	return take_apart();
}

// Fills head and objects from the list, which may be of any content.
ostrelx_error_t UndoRecord::take_apart()
{
	attrlist_t *list = list_.get();
	auto text = [&](const char *name) {
		char *value = nullptr;
		return attrlist_lookup_string(list, name, &value) == 0 ? value : nullptr;
	};
	head = {text("store"), text("database"), 0, 0, 0, text("boot"), text("run")};
	objects.clear();
	attrlist_t **lists = nullptr;
	uint_t count = 0;
	if (head.store == nullptr || head.database == nullptr || head.boot == nullptr ||
	    attrlist_lookup_int32(list, "enclave", &head.enclave) != 0 ||
	    attrlist_lookup_uint64(list, "flags", &head.db_flags) != 0 ||
	    attrlist_lookup_uint32(list, "uid", &head.uid) != 0 ||
	    attrlist_lookup_attrlist_array(list, "objects", &lists, &count) != 0)
		return OSTREL_INVALID_ARG;
	if (!objects.make_room(count))
		return OSTREL_NO_MEMORY;
	for (uint_t i = 0; i < count; i++) {
		UndoObject object = {};
		if (attrlist_lookup_attrlist(lists[i], "id", &object.idl) != 0 ||
		    attrlist_lookup_uint64(lists[i], "flags", &object.flags) != 0)
			return OSTREL_INVALID_ARG;
		(void) attrlist_lookup_attrlist(lists[i], "before", &object.before); // NULL without it
		(void) attrlist_lookup_attrlist(lists[i], "after", &object.after);
		(void) objects.append(object); // there is room
	}
	return OSTREL_SUCCESS;
}

ostrelx_error_t UndoRecord::read(int fd)
{
	struct stat status;
	if (fstat(fd, &status) != 0)
		return OSTREL_FAILURE;
	if (status.st_size < static_cast<off_t>(line_size) || status.st_size > static_cast<off_t>(record_size_max))
		return OSTREL_INVALID_ARG;
	const auto size = static_cast<size_t>(status.st_size);
	const Heap<char> bytes(static_cast<char *>(malloc(size)));
	if (!bytes)
		return OSTREL_NO_MEMORY;
	for (size_t at = 0; at < size;) {
		const ssize_t got = pread(fd, bytes.get() + at, size - at, static_cast<off_t>(at));
		if (got == -1 && errno == EINTR)
			continue;
		if (got <= 0)
			return OSTREL_FAILURE;
		at += static_cast<size_t>(got);
	}
	// The line for people ends with the first empty one: nothing that could end it is in it.
	const char *packed = static_cast<const char *>(memmem(bytes.get(), size, "\n\n", 2));
	if (packed == nullptr || !parse_state(bytes.get(), &state))
		return OSTREL_INVALID_ARG;
	packed += 2;
	const size_t length = size - static_cast<size_t>(packed - bytes.get());
	if (int error = attrlist_unpack(packed, length, list_.out(), 0))
		return ostrel_errno2error(error);
	return take_apart();
}

ostrelx_error_t UndoRecord::write(int fd) const
{
	Heap<char> packed;
	size_t size = 0;
	if (int error = attrlist_pack(list_.get(), packed.out(), &size, ATL_ENCODE_XDR, 0))
		return ostrel_errno2error(error);
	char line[line_size + 1];
	print_state(state, line);
	char people[OSTREL_DB_NAME_MAX + 64];
	const int length =
	    snprintf(people, sizeof people, "%zu objects of %s:%s", objects.size(), head.store, head.database);
	if (length < 0 || static_cast<size_t>(length) >= sizeof people)
		return OSTREL_FAILURE;
	std::replace_if(
	    people, people + length, [](char byte) { return static_cast<unsigned char>(byte) < ' '; }, '?');
	int error = meridon_write_all(fd, line, line_size);
	error = error != 0 ? error : meridon_write_all(fd, people, static_cast<size_t>(length));
	error = error != 0 ? error : meridon_write_all(fd, "\n\n", 2);
	error = error != 0 ? error : meridon_write_all(fd, packed.get(), size);
	if (error == 0 && fsync(fd) != 0)
		error = errno;
	return error == 0 || error == ENOSPC ? ostrel_errno2error(error) : OSTREL_FAILURE;
}

// ---- Time ----

uint64_t undo_now_ns()
{
	struct timespec now = {};
	(void) clock_gettime(CLOCK_BOOTTIME, &now); // can't fail with this clock
	return static_cast<uint64_t>(now.tv_sec * second_ns + now.tv_nsec);
}

void undo_set_deadline(UndoState *state, unsigned seconds)
{
	state->deadline_ns = undo_now_ns() + seconds * static_cast<uint64_t>(second_ns);
	state->until = time(nullptr) + static_cast<int64_t>(seconds);
}

ostrelx_error_t undo_boot_id(char (&boot)[boot_id_size])
{
	const Fd file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
	char text[boot_id_size + 1];
	if (!file || meridon_read_all(file.get(), text, sizeof text) != static_cast<ssize_t>(boot_id_size))
		return OSTREL_FAILURE;
	memcpy(boot, text, boot_id_size - 1);
	boot[boot_id_size - 1] = '\0'; // in place of the end of the line
	return OSTREL_SUCCESS;
}

// In doubt it is: the record then waits for its time.
bool UndoRecord::is_of_this_boot() const
{
	char boot[boot_id_size];
	return undo_boot_id(boot) != OSTREL_SUCCESS || strcmp(boot, head.boot) == 0;
}

bool UndoRecord::is_due() const
{
	return state.deadline_ns <= undo_now_ns() || !is_of_this_boot();
}

uint32_t UndoRecord::seconds_left() const
{
	const uint64_t now = undo_now_ns();
	if (state.deadline_ns <= now)
		return 0;
	const uint64_t left = (state.deadline_ns - now + second_ns - 1) / second_ns;
	return static_cast<uint32_t>(std::min<uint64_t>(left, UINT32_MAX));
}

// ---- Objects ----

namespace {

const char *text_of_key(attrlist_t *list, const char *name)
{
	char *value = nullptr;
	return attrlist_lookup_string(list, name, &value) == 0 ? value : nullptr;
}

bool same_text(const char *a, const char *b, bool folds)
{
	return (folds ? strcasecmp(a, b) : strcmp(a, b)) == 0;
}

// Whether each text key of `a` is in `b`, with an equal value. *count: how many keys count.
bool is_within(attrlist_t *a, attrlist_t *b, bool folds, size_t *count)
{
	*count = 0;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(a, pair)) != nullptr;) {
		char *value;
		const char *name = attrpair_name(pair);
		if (attrpair_value_string(pair, &value) != 0 || strcmp(name, OSTREL_ID_ID_STRING) == 0 ||
		    strcmp(name, OSTREL_ID_DB_NAME) == 0)
			continue;
		const char *other = text_of_key(b, name);
		if (other == nullptr || !same_text(value, other, folds))
			return false;
		++*count;
	}
	return true;
}

} // namespace

bool undo_same_object(attrlist_t *a, attrlist_t *b, bool folds)
{
	const char *path = text_of_key(a, "object-pgname");
	const char *other = text_of_key(b, "object-pgname");
	if (path != nullptr && other != nullptr)
		return same_text(path, other, folds);
	size_t keys;
	size_t others;
	return is_within(a, b, folds, &keys) && is_within(b, a, folds, &others) && keys == others;
}
