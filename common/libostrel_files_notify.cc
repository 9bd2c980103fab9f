// The notifier of a flat or raw file: it tells of every change of what the path leads to.
//
// One inotify descriptor has a watch on each directory of the path, from the root down, and on those of what symbolic links on
// the way lead to. An event counts if it names the next step of the path in such a directory; so the temporary file of an update
// is none. What changes the way itself (a directory that comes, goes or is moved, the end of a mount, lost events) has all watches
// placed again, until two rounds give the same ones: a change between a look at a directory and the watch on it would be missed
// otherwise. Only then is the change told, so that whoever reads afterwards misses nothing.
//
// In another enclave a forked child that entered it places the watches, into the descriptor that it shares with this process.
// Events arrive here; the end of that mount is one, too. So the child makes nothing but system calls, and leaves what it placed
// in memory that both have.
//
// A directory that may be passed and not read can't be watched, and inotify may be out of watches: then the watches are placed
// again each few seconds, and a change is told, since there may have been one. The lack of watches is an error besides.
#include "libostrel_files.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_files_open.h"
#include "libostrel_handle.h"
#include "libostrel_zio.h"

namespace {

constexpr int look_seconds = 5;
constexpr unsigned child_seconds = 15; // for a child, whose enclave may have a file system that doesn't answer
constexpr int links_max = 40;          // as the kernel follows
constexpr int rounds_max = 100;
constexpr size_t steps_max = 192;

constexpr uint32_t way_events =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;
constexpr uint32_t content_events = IN_MODIFY | IN_CLOSE_WRITE;
constexpr uint32_t lost_events = IN_Q_OVERFLOW | IN_IGNORED | IN_UNMOUNT | IN_DELETE_SELF | IN_MOVE_SELF;

// A step of the path: the directory, by its watch, and the name in it that leads on.
struct PathStep {
	int watch;
	char name[NAME_MAX + 1];
};

// The whole way, in memory that a child shares. The last step is the file's.
struct Way {
	size_t count;
	bool is_partly_watched; // a directory can't be read, or there are too many steps
	int error;              // why no more can be watched
	PathStep steps[steps_max];
};

// Writes `a`/`b`; false if that is too long. No call of the C library's that might allocate or lock: a child uses it.
bool join(char (&out)[PATH_MAX], const char *a, const char *b)
{
	const size_t first = strlen(a);
	const size_t second = strlen(b);
	if (first + second + 2 > sizeof(out))
		return false;
	memcpy(out, a, first);
	out[first] = '/';
	memcpy(out + first + 1, b, second + 1);
	return true;
}

// A path that is walked: where it has come to, and what is left. No allocation: a child in an enclave uses it.
class PathWalk {
public:
	explicit PathWalk(const char (&path)[PATH_MAX]) { memcpy(rest_, path, sizeof(rest_)); }

	// Takes the next name. False at the end.
	bool next()
	{
		for (;;) {
			const char *begin = rest_ + strspn(rest_, "/");
			const size_t length = strcspn(begin, "/");
			if (length == 0 || length > NAME_MAX)
				return false;
			memcpy(name_, begin, length);
			name_[length] = '\0';
			memmove(rest_, begin + length, strlen(begin + length) + 1);
			if (strcmp(name_, ".") == 0)
				continue;
			if (strcmp(name_, "..") != 0)
				return true;
			char *last = strrchr(at_, '/');
			if (last != nullptr)
				*last = '\0';
		}
	}
	const char *name() const { return name_; }
	const char *directory() const { return *at_ != '\0' ? at_ : "/"; }
	bool is_last() const { return rest_[strspn(rest_, "/")] == '\0'; }

	// Goes on behind the name: along the link that it is, or below it. False if the path gets too long, or goes in circles.
	bool go_on()
	{
		char whole[PATH_MAX];
		if (!join(whole, at_, name_))
			return false;
		char target[PATH_MAX];
		const ssize_t length = readlink(whole, target, sizeof(target) - 1);
		if (length == -1) {
			memcpy(at_, whole, strlen(whole) + 1);
			return true;
		}
		target[length] = '\0';
		char left[PATH_MAX];
		if (++links_ > links_max || !join(left, target, rest_))
			return false;
		memcpy(rest_, left, strlen(left) + 1);
		if (*target == '/')
			*at_ = '\0';
		return true;
	}

private:
	char at_[PATH_MAX] = ""; // without links, without the slash at its end
	char rest_[PATH_MAX];
	char name_[NAME_MAX + 1] = "";
	int links_ = 0;
};

bool same_watches(const Way &a, const Way &b)
{
	if (a.count != b.count)
		return false;
	for (size_t i = 0; i < a.count; i++) {
		if (a.steps[i].watch != b.steps[i].watch || strcmp(a.steps[i].name, b.steps[i].name) != 0)
			return false;
	}
	return true;
}

// Adds the watches of one round. Where the path ends before the file, the last directory that is there tells when it goes on.
void place_once(int inotify, const char (&path)[PATH_MAX], Way *way)
{
	way->count = 0;
	way->is_partly_watched = false;
	way->error = 0;
	for (PathWalk walk(path); walk.next();) {
		if (way->count == steps_max) {
			way->is_partly_watched = true;
			return;
		}
		const int watch = inotify_add_watch(inotify, walk.directory(), way_events | content_events);
		if (watch == -1 && (errno == ENOENT || errno == ENOTDIR))
			return;
		if (watch == -1 && errno == EACCES)
			way->is_partly_watched = true;
		else if (watch == -1) {
			way->error = errno;
			return;
		}
		PathStep &step = way->steps[way->count++];
		step.watch = watch;
		memcpy(step.name, walk.name(), strlen(walk.name()) + 1);
		if (!walk.go_on())
			return;
	}
}

class FileNotifier final : public Notifier {
public:
	explicit FileNotifier(enclaveid_t enclave) : enclave_(enclave) {}

	ostrel_error_t begin(const char *path);
	int fd() const override { return set_.get(); }
	ostrel_error_t look(bool *changed) override;
	void end() override { delete this; }
	~FileNotifier()
	{
		for (Way *way : {way_, before_}) {
			if (way != nullptr)
				(void) munmap(way, sizeof(Way));
		}
	}

private:
	int place();
	int place_round();
	void drop_unused() const;
	bool drain(bool *lost);
	bool counts(const inotify_event &event, bool *lost) const;
	void look_again_later(bool wanted) const;
	int add_to_set(int fd) const;

	enclaveid_t enclave_;
	char path_[PATH_MAX] = "";
	Fd set_, inotify_, timer_;
	Way *way_ = nullptr;
	Way *before_ = nullptr;
	bool placed_ = false; // both ways are of rounds without an error
	bool tried_ = false;  // look() was called
	int place_error_ = 0; // of the last placing
};

int FileNotifier::add_to_set(int fd) const
{
	struct epoll_event event = {};
	event.events = EPOLLIN;
	return epoll_ctl(set_.get(), EPOLL_CTL_ADD, fd, &event) == -1 ? errno : 0;
}

Way *map_way()
{
	void *memory = mmap(nullptr, sizeof(Way), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	return memory != MAP_FAILED ? static_cast<Way *>(memory) : nullptr;
}

ostrel_error_t FileNotifier::begin(const char *path)
{
	char directory[PATH_MAX] = "";
	// A child in an enclave begins at its root, as the one that opens the file does.
	if (*path != '/' && enclave_ == ENCLAVE_ID_GLOBAL && getcwd(directory, sizeof(directory)) == nullptr)
		return SETERRNO(errno);
	if (!join(path_, directory, path))
		return SETERROR(OSTREL_INVALID_ARG);
	set_.reset(epoll_create1(EPOLL_CLOEXEC));
	inotify_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
	timer_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
	if (!set_ || !inotify_ || !timer_)
		return SETERRNO(errno);
	if (int error = add_to_set(inotify_.get()))
		return SETERRNO(error);
	if (int error = add_to_set(timer_.get()))
		return SETERRNO(error);
	way_ = map_way();
	before_ = map_way();
	return way_ != nullptr && before_ != nullptr ? OSTREL_SUCCESS : SETERROR(OSTREL_NO_MEMORY);
}

int FileNotifier::place_round()
{
	way_->count = 0; // a child may never get to it
	way_->error = 0;
	if (enclave_ == ENCLAVE_ID_GLOBAL) {
		place_once(inotify_.get(), path_, way_);
		return way_->error;
	}
	pid_t child;
	int error = ostrel_zfork(enclave_, B_TRUE, &child);
	if (error == 0 && child == 0) {
		ostrel_zlimit(child_seconds);
		place_once(inotify_.get(), path_, way_);
		_exit(0);
	}
	return error != 0 ? error : way_->error;
}

// A watch that no step uses any more tells nothing that counts, but it costs one of the user's.
void FileNotifier::drop_unused() const
{
	for (size_t i = 0; i < before_->count; i++) {
		bool used = false;
		for (size_t j = 0; j < way_->count; j++)
			used = used || way_->steps[j].watch == before_->steps[i].watch;
		if (!used && before_->steps[i].watch != -1)
			(void) inotify_rm_watch(inotify_.get(), before_->steps[i].watch); // it may have gone by itself
	}
}

// Gives 0 or why the way can't be watched.
int FileNotifier::place()
{
	for (int round = 0; round < rounds_max; round++) {
		std::swap(way_, before_);
		const int error = place_round();
		drop_unused();
		if (error != 0)
			return error;
		if (placed_ && same_watches(*way_, *before_))
			return 0;
		placed_ = true;
	}
	return EAGAIN; // somebody moves directories all the time
}

// Whether an event is one of the path. *lost: it may be that the watches aren't where they have to be.
bool FileNotifier::counts(const inotify_event &event, bool *lost) const
{
	if ((event.mask & IN_Q_OVERFLOW) != 0) {
		*lost = true;
		return true;
	}
	bool found = false;
	for (size_t i = 0; i < way_->count; i++) {
		const PathStep &step = way_->steps[i];
		if (step.watch != event.wd)
			continue;
		const bool is_name = event.len > 0 && strcmp(event.name, step.name) == 0;
		const bool is_content = (event.mask & content_events) != 0;
		if ((event.mask & lost_events) != 0)
			*lost = found = true;
		else if (is_name && (!is_content || i + 1 == way_->count)) {
			found = true;
			*lost = *lost || !is_content;
		}
	}
	return found;
}

// Takes all events, and the tick of the timer, which is as good as an event that was lost.
bool FileNotifier::drain(bool *lost)
{
	bool found = false;
	alignas(inotify_event) char events[16384];
	for (;;) {
		const ssize_t got = read(inotify_.get(), events, sizeof(events));
		if (got == -1 && errno == EINTR)
			continue;
		if (got <= 0)
			break;
		for (const char *at = events; at < events + got;) {
			const auto *event = reinterpret_cast<const inotify_event *>(at);
			found = counts(*event, lost) || found;
			at += sizeof(*event) + event->len;
		}
	}
	uint64_t ticks;
	*lost = read(timer_.get(), &ticks, sizeof(ticks)) == sizeof(ticks) || *lost;
	return found || *lost;
}

void FileNotifier::look_again_later(bool wanted) const
{
	struct itimerspec when = {};
	when.it_value.tv_sec = wanted ? look_seconds : 0;
	(void) timerfd_settime(timer_.get(), 0, &when, nullptr);
}

// While watches are lacking, each tick and each event of those that there are places them again, and nothing else does: a caller
// may look as often as it likes.
ostrel_error_t FileNotifier::look(bool *changed)
{
	bool lost = !tried_;
	tried_ = true;
	*changed = drain(&lost) || lost;
	if (*changed && (lost || place_error_ != 0)) {
		place_error_ = place();
		placed_ = placed_ && place_error_ == 0;
		look_again_later(place_error_ != 0 || way_->is_partly_watched);
	}
	return place_error_ != 0 ? SETERRNO(place_error_) : OSTREL_SUCCESS;
}

} // namespace

ostrel_error_t ostrel_notify_of_path(const char *path, enclaveid_t enclave, Notifier **notifier)
{
	auto *made = new (std::nothrow) FileNotifier(enclave);
	if (made == nullptr)
		return SETERROR(OSTREL_NO_MEMORY);
	if (ostrel_error_t bad = made->begin(path)) {
		made->end();
		return bad;
	}
	*notifier = made;
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_notify_of_file(ostrel_db_t db, attrlist_t *idl, Notifier **notifier)
{
	const char *path = ostrel_file_path(db, idl);
	if (path == nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	return ostrel_notify_of_path(
	    path, getenclaveid() == ENCLAVE_ID_GLOBAL ? ostrel_db_get_enclaveid(db) : 0, notifier);
}
