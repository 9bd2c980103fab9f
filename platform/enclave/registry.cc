// The registry of a host's enclaves: one file for each, of lines `key=value`, replaced whole by a rename.
//
// Readers take no lock: a record that they open is a whole one, the old or the new. Updates hold the lock of the registry from
// the look to the rename, so that none overwrites what another one has just checked. The lock is of the open file: it ends
// with the process that has it, however that ends, and a forked child shares it with its parent.
//
// A record is as good as the one who could write it. It is read by descriptor, without a link or a wait, and counts only if
// root or this process's user owns it and nobody else may write it (check_owner()).
//
// Divisions: fields, reading a record, writing one, the calls.
#include "enclave/enclave_impl.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

#include "base/directory.h"
#include "base/files.h"

using std::string_view;

// ---- Fields ----

namespace {

constexpr size_t record_max = 4096; // bytes of a record's file, with room for a NUL

// Only the registry's owner can open it. A process that can open a file can lock it, also for reading alone, and the
// directory and the records are open to all.
constexpr char locks_name[] = ".lock"; // no number, so that a listing passes over it

constexpr const char *state_names[] = {"configured", "incomplete", "unavailable", "installed", "ready", "running",
    "shutting_down", "down", "mounted", "invalid"};
static_assert(sizeof state_names / sizeof *state_names == ENCLAVE_STATE_INVALID + 1);

enclave_state_t state_of(string_view word)
{
	for (uint32_t i = 0; i < ENCLAVE_STATE_INVALID; i++)
		if (word == state_names[i])
			return static_cast<enclave_state_t>(i);
	return ENCLAVE_STATE_INVALID;
}

bool is_letter(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_name(string_view name)
{
	if (name.empty() || name.size() > ENCLAVE_NAME_MAX || !is_letter(name[0]) || name == "global")
		return false;
	for (char c : name)
		if (!is_letter(c) && !(c >= '0' && c <= '9') && c != '.' && c != '_' && c != '-')
			return false;
	return true;
}

bool is_root(string_view root)
{
	if (root.empty() || root.size() > ENCLAVE_ROOT_MAX || root[0] != '/')
		return false;
	for (char c : root)
		if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
			return false;
	return true;
}

bool is_id(enclaveid_t id)
{
	return id >= 1 && id <= ENCLAVE_ID_MAX;
}

// The name of a record's file.
struct FileName {
	char text[32];

	explicit FileName(enclaveid_t id) { (void) meridon_print_number(static_cast<uint64_t>(id), text); }
};

// ---- Reading a record ----

void set_text(char *field, string_view value)
{
	memcpy(field, value.data(), value.size());
	field[value.size()] = '\0';
}

bool parse_name(string_view value, enclave_info_t *info)
{
	if (!is_name(value))
		return false;
	set_text(info->ei_name, value);
	return true;
}

bool parse_root(string_view value, enclave_info_t *info)
{
	if (!is_root(value))
		return false;
	set_text(info->ei_root, value);
	return true;
}

bool parse_state(string_view value, enclave_info_t *info)
{
	info->ei_state = state_of(value);
	return info->ei_state != ENCLAVE_STATE_INVALID;
}

bool parse_leader(string_view value, enclave_info_t *info)
{
	uint64_t pid;
	if (!meridon_parse_number(value, INT_MAX, &pid) || pid == 0)
		return false;
	info->ei_leader = static_cast<pid_t>(pid);
	return true;
}

bool parse_leader_start(string_view value, enclave_info_t *info)
{
	return meridon_parse_number(value, UINT64_MAX, &info->ei_leader_start);
}

struct Field {
	string_view key;
	bool required;
	bool (*parse)(string_view value, enclave_info_t *info);
};
constexpr Field fields[] = {
    {"name", true, parse_name},
    {"root", true, parse_root},
    {"state", true, parse_state},
    {"leader", false, parse_leader},
    {"leader_start", false, parse_leader_start},
};

// One line. Keys of later versions are passed over, a key that stands twice isn't. Bit i of *seen is field i.
bool parse_line(string_view line, enclave_info_t *info, unsigned *seen)
{
	if (line.empty() || line[0] == '#')
		return true;
	size_t equals = line.find('=');
	if (equals == string_view::npos)
		return false;
	for (unsigned i = 0; i < sizeof fields / sizeof *fields; i++) {
		if (line.substr(0, equals) != fields[i].key)
			continue;
		bool again = (*seen & 1U << i) != 0;
		*seen |= 1U << i;
		return !again && fields[i].parse(line.substr(equals + 1), info);
	}
	return true;
}

int parse_record(string_view text, enclave_info_t *info)
{
	unsigned seen = 0;
	while (!text.empty()) {
		size_t end = text.find('\n');
		if (!parse_line(text.substr(0, end), info, &seen))
			return EBADMSG;
		text.remove_prefix(end == string_view::npos ? text.size() : end + 1);
	}
	for (unsigned i = 0; i < sizeof fields / sizeof *fields; i++)
		if (fields[i].required && (seen & 1U << i) == 0)
			return EBADMSG;
	return 0;
}

// A record decides where privileged processes go, so nobody else may have written it.
int check_owner(int fd)
{
	struct stat st;
	if (fstat(fd, &st) == -1)
		return errno;
	if (!S_ISREG(st.st_mode))
		return EBADMSG;
	bool trusted = (st.st_uid == 0 || st.st_uid == geteuid()) && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
	return trusted ? 0 : EPERM;
}

} // namespace

int enclave_open_registry(Fd *dir)
{
	char path[PATH_MAX];
	if (int error = meridon_path(enclave_registry_path, path))
		return error;
	dir->reset(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	return *dir ? 0 : errno;
}

int enclave_open_locks(int dir, Fd *locks)
{
	locks->reset(openat(dir, locks_name, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
	return *locks ? 0 : errno;
}

int enclave_lock(int locks, enclaveid_t id, int command)
{
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	lock.l_start = id;
	lock.l_len = 1;
	while (fcntl(locks, command, &lock) == -1)
		if (errno != EINTR)
			return errno == EACCES ? EAGAIN : errno;
	return 0;
}

int enclave_read_record(int dir, enclaveid_t id, enclave_info_t *info)
{
	Fd file(openat(dir, FileName(id).text, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
	if (!file)
		return errno == ELOOP ? EBADMSG : errno;
	if (int error = check_owner(file.get()))
		return error;
	char text[record_max];
	ssize_t len = meridon_read_all(file.get(), text, sizeof text);
	if (len == -1)
		return errno == EFBIG ? EBADMSG : errno;
	enclave_info_t found = {};
	found.ei_id = id;
	if (int error = parse_record({text, static_cast<size_t>(len)}, &found))
		return error;
	*info = found;
	return 0;
}

// ---- Writing one ----

namespace {

// The text of a record. Its fields were checked, so it fits.
struct RecordText {
	char text[record_max];
	size_t len = 0;

	explicit RecordText(const enclave_info_t &info)
	{
		add("name=", info.ei_name);
		add("root=", info.ei_root);
		add("state=", state_names[info.ei_state]);
		if (info.ei_leader == 0)
			return;
		char number[21];
		(void) meridon_print_number(static_cast<uint64_t>(info.ei_leader), number);
		add("leader=", number);
		(void) meridon_print_number(info.ei_leader_start, number);
		add("leader_start=", number);
	}
	void add(string_view key, string_view value)
	{
		len += key.copy(text + len, key.size());
		len += value.copy(text + len, value.size());
		text[len++] = '\n';
	}
};

// The registry's directory, locked against other updates. It is made for a caller who is about to write.
class LockedRegistry {
public:
	int open(bool make)
	{
		int error = enclave_open_registry(&dir_);
		if (error == ENOENT && make) {
			error = make_directories();
			if (error == 0)
				error = enclave_open_registry(&dir_);
		}
		if (error == 0)
			error = enclave_open_locks(dir_.get(), &locks_);
		return error != 0 ? error : enclave_lock(locks_.get(), ENCLAVE_ID_GLOBAL, F_OFD_SETLKW);
	}
	int dir() const { return dir_.get(); }

private:
	Fd dir_;
	Fd locks_;

	static int make_directories()
	{
		char path[PATH_MAX];
		for (const char *name : {"run", enclave_registry_path}) {
			if (int error = meridon_path(name, path))
				return error;
			if (mkdir(path, 0755) == -1 && errno != EEXIST)
				return errno;
		}
		Fd parent(meridon_open_parent(path));
		return parent ? meridon_sync_dir(parent.get()) : errno;
	}
};

// Writes a new file of that name, whole and on disk.
int write_new_file(int dir, const char *name, const enclave_info_t &info)
{
	Fd file(openat(dir, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
	if (!file || fchmod(file.get(), 0644) == -1)
		return errno;
	RecordText record(info);
	if (int error = meridon_write_all(file.get(), record.text, record.len))
		return error;
	if (fsync(file.get()) == -1)
		return errno;
	return close(file.release()) == 0 ? 0 : errno;
}

int write_record(int dir, const enclave_info_t &info)
{
	FileName name(info.ei_id);
	char temp[40] = "."; // no number, so that a listing passes over it
	strcat(strcat(temp, name.text), ".new");
	(void) unlinkat(dir, temp, 0); // left by an update that was cut off
	int error = write_new_file(dir, temp, info);
	if (error == 0 && renameat(dir, temp, dir, name.text) == -1)
		error = errno;
	if (error == 0)
		return meridon_sync_dir(dir);
	(void) unlinkat(dir, temp, 0);
	return error;
}

void close_dir(DIR *dir)
{
	(void) closedir(dir);
}
using Dir = Handle<DIR, close_dir>;

struct RecordArray {
	Heap<enclave_info_t> infos;
	size_t count = 0;
	size_t room = 0;

	int add(const enclave_info_t &info)
	{
		if (count == room) {
			size_t more = room == 0 ? 16 : room * 2;
			void *grown = realloc(infos.get(), more * sizeof info);
			if (grown == nullptr)
				return ENOMEM;
			(void) infos.release();
			infos.reset(static_cast<enclave_info_t *>(grown));
			room = more;
		}
		infos.get()[count++] = info;
		return 0;
	}
};

int by_id(const void *a, const void *b)
{
	return static_cast<const enclave_info_t *>(a)->ei_id - static_cast<const enclave_info_t *>(b)->ei_id;
}

int list_entry(int dir, const char *name, RecordArray *records)
{
	uint64_t id;
	if (!meridon_parse_number(name, ENCLAVE_ID_MAX, &id) || id == 0)
		return 0;
	enclave_info_t info = {};
	info.ei_id = static_cast<enclaveid_t>(id);
	int error = enclave_read_record(dir, info.ei_id, &info);
	if (error == ENOENT)
		return 0; // removed in the meantime
	if (error == EBADMSG || error == EPERM || error == EACCES)
		info.ei_state = ENCLAVE_STATE_INVALID;
	else if (error != 0)
		return error;
	return records->add(info);
}

// All records of an open registry, in the order of their ids.
int list_records(int registry, RecordArray *records)
{
	Fd copy(openat(registry, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	Dir dir(copy ? fdopendir(copy.get()) : nullptr);
	if (!dir)
		return errno;
	(void) copy.release(); // the stream closes it
	errno = 0;
	while (const dirent *entry = readdir(dir.get())) {
		if (int error = list_entry(registry, entry->d_name, records))
			return error;
		errno = 0;
	}
	if (errno != 0)
		return errno;
	if (records->count > 1)
		qsort(records->infos.get(), records->count, sizeof(enclave_info_t), by_id);
	return 0;
}

// Whether another enclave has that name: EEXIST then.
int check_name_is_free(int registry, const enclave_info_t &wanted)
{
	RecordArray records;
	if (int error = list_records(registry, &records))
		return error;
	for (size_t i = 0; i < records.count; i++) {
		const enclave_info_t &info = records.infos.get()[i];
		if (info.ei_id != wanted.ei_id && strcmp(info.ei_name, wanted.ei_name) == 0)
			return EEXIST;
	}
	return 0;
}

int check_exists(int registry, enclaveid_t id)
{
	struct stat st;
	return fstatat(registry, FileName(id).text, &st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

} // namespace

// ---- The calls ----

int enclave_registry_get(enclaveid_t id, enclave_info_t *info)
{
	CancellationWaits cancellation;
	if (!is_id(id) || info == nullptr)
		return EINVAL;
	Fd dir;
	if (int error = enclave_open_registry(&dir))
		return error;
	return enclave_read_record(dir.get(), id, info);
}

int enclave_registry_list(enclave_info_t **infos, size_t *count)
{
	CancellationWaits cancellation;
	if (infos == nullptr || count == nullptr)
		return EINVAL;
	Fd dir;
	RecordArray records;
	int error = enclave_open_registry(&dir);
	if (error == 0)
		error = list_records(dir.get(), &records);
	if (error != 0 && error != ENOENT) // without a registry there are none
		return error;
	if (!records.infos)
		records.infos.reset(static_cast<enclave_info_t *>(malloc(sizeof(enclave_info_t))));
	if (!records.infos)
		return ENOMEM;
	*infos = records.infos.release();
	*count = records.count;
	return 0;
}

int enclave_registry_find(const char *name, enclave_info_t *info)
{
	CancellationWaits cancellation;
	if (name == nullptr || info == nullptr)
		return EINVAL;
	enclave_info_t *infos = nullptr;
	size_t count = 0;
	if (int error = enclave_registry_list(&infos, &count))
		return error;
	Heap<enclave_info_t> owner(infos);
	for (size_t i = 0; i < count; i++) {
		// NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): the list has filled `count` of them
		if (infos[i].ei_state == ENCLAVE_STATE_INVALID || strcmp(infos[i].ei_name, name) != 0)
			continue;
		*info = infos[i];
		return 0;
	}
	return ENOENT;
}

int enclave_registry_check(const enclave_info_t *info)
{
	if (info == nullptr || !is_id(info->ei_id) || info->ei_state >= ENCLAVE_STATE_INVALID || info->ei_leader < 0)
		return EINVAL;
	string_view name(info->ei_name, strnlen(info->ei_name, sizeof info->ei_name));
	string_view root(info->ei_root, strnlen(info->ei_root, sizeof info->ei_root));
	return is_name(name) && is_root(root) ? 0 : EINVAL;
}

int enclave_registry_add(const enclave_info_t *info)
{
	CancellationWaits cancellation;
	if (int error = enclave_registry_check(info))
		return error;
	LockedRegistry registry;
	if (int error = registry.open(true))
		return error;
	int error = check_exists(registry.dir(), info->ei_id);
	if (error != ENOENT)
		return error == 0 ? EEXIST : error;
	if (int taken = check_name_is_free(registry.dir(), *info))
		return taken;
	return write_record(registry.dir(), *info);
}

int enclave_registry_replace(const enclave_info_t *info)
{
	CancellationWaits cancellation;
	if (int error = enclave_registry_check(info))
		return error;
	LockedRegistry registry;
	if (int error = registry.open(false))
		return error;
	if (int error = check_exists(registry.dir(), info->ei_id))
		return error;
	if (int taken = check_name_is_free(registry.dir(), *info))
		return taken;
	return write_record(registry.dir(), *info);
}

int enclave_registry_remove(enclaveid_t id)
{
	CancellationWaits cancellation;
	if (!is_id(id))
		return EINVAL;
	LockedRegistry registry;
	if (int error = registry.open(false))
		return error;
	if (unlinkat(registry.dir(), FileName(id).text, 0) == -1)
		return errno;
	return meridon_sync_dir(registry.dir());
}

const char *enclave_state_name(enclave_state_t state)
{
	return state_names[state < ENCLAVE_STATE_INVALID ? state : ENCLAVE_STATE_INVALID];
}

enclave_state_t enclave_state_by_name(const char *word)
{
	return word == nullptr ? ENCLAVE_STATE_INVALID : state_of(word);
}
