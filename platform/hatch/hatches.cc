// Hatches: made, attached, revoked; and what a fork does to them.
#include <cassert>
#include <cerrno>
#include <csignal>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "base/fail.h"
#include "base/process_mark.h"
#include "hatch/server.h"

namespace hatch {
namespace {

Mutex list_lock;
Hatch *list GUARDED_BY(list_lock);
Hatch *inherited GUARDED_BY(list_lock); // in a forked child: its parent's, closed
ProcessMark list_process;

// The number of a descriptor isn't enough: its owner may have closed it, and the number may stand for another file by now.
bool inode_of(int fd, ino_t *inode)
{
	struct stat st;
	if (fstat(fd, &st) == -1 || !S_ISSOCK(st.st_mode))
		return false;
	*inode = st.st_ino;
	return true;
}

Hatch **find_locked(int fd) REQUIRES(list_lock)
{
	ino_t inode;
	if (!inode_of(fd, &inode))
		return nullptr;
	for (Hatch **link = &list; *link != nullptr; link = &(*link)->next) {
		if ((*link)->fd == fd && (*link)->inode == inode && !(*link)->revoked)
			return link;
	}
	return nullptr;
}

// The child closes its copies, so that it holds neither a lock nor a connection of its parent's. The memory stays: the stacks of
// its parent's threads point into it.
void renew() NO_THREAD_SAFETY_ANALYSIS // no other thread has any of it yet
{
	list_lock.init();
	renew_pool();
	leave_call();
	all_live = all_held = 0;
	all_threads = 0;
	Hatch *last = nullptr;
	for (Hatch *hatch = list; hatch != nullptr; hatch = hatch->next) {
		hatch->point = AttachPoint{};
		hatch->events.reset();
		hatch->stop.reset();
		hatch->wake.reset();
		hatch->timer.reset();
		hatch->listening = -1;
		for (Peer *peer = hatch->peers.first; peer != nullptr; peer = peer->all.next)
			peer->socket.reset();
		last = hatch;
	}
	if (last != nullptr) {
		last->next = inherited;
		inherited = list;
		list = nullptr;
	}
}

void before_fork() NO_THREAD_SAFETY_ANALYSIS // in_parent() gives these locks up, or in_child()
{
	list_process.enter(renew); // another thread may be about to make the lock
	list_lock.lock();
	for (Hatch *hatch = list; hatch != nullptr; hatch = hatch->next)
		hatch->lock.lock(), hatch->accept_lock.lock();
	lock_pool();
}

void in_parent() NO_THREAD_SAFETY_ANALYSIS // before_fork() took them
{
	unlock_pool();
	for (Hatch *hatch = list; hatch != nullptr; hatch = hatch->next)
		hatch->accept_lock.unlock(), hatch->lock.unlock();
	list_lock.unlock();
}

// At once: a child that never looks at a hatch must not be its parent's sign of life either.
void in_child()
{
	if (!list_process.is_own())
		in_parent(); // releases what this thread locked
	list_process.enter(renew);
}

// Comes before the list is locked, by a client too.
void enter_process()
{
	static pthread_once_t once = PTHREAD_ONCE_INIT;
	(void) pthread_once(&once, [] {
		(void) _meridon_process(); // its handler of a fork has to run before in_child()
		(void) pthread_atfork(before_fork, in_parent, in_child);
	});
	list_process.enter(renew);
}

int watch(const Hatch &hatch, const Fd &fd, uint32_t how)
{
	struct epoll_event event = {};
	event.events = how;
	event.data.u64 = event_of(&fd);
	return epoll_ctl(hatch.events.get(), EPOLL_CTL_ADD, fd.get(), &event) == -1 ? errno : 0;
}

int open_all(Hatch *hatch)
{
	hatch->events.reset(epoll_create1(EPOLL_CLOEXEC));
	if (!hatch->events)
		return errno;
	hatch->stop.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
	if (!hatch->stop)
		return errno;
	hatch->wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
	if (!hatch->wake)
		return errno;
	hatch->timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
	if (!hatch->timer)
		return errno;
	if (int error = watch(*hatch, hatch->stop, EPOLLIN))
		return error;
	if (int error = watch(*hatch, hatch->wake, EPOLLIN | EPOLLET))
		return error;
	return watch(*hatch, hatch->timer, EPOLLIN | EPOLLET);
}

int make(hatch_handler_t *handler, void *cookie, int *fd)
{
	auto *hatch = new (std::nothrow) Hatch{};
	if (hatch == nullptr)
		return ENOMEM;
	hatch->main.handler = handler;
	hatch->main.cookie = cookie;
	hatch->lock.init();
	hatch->accept_lock.init();
	hatch->ended.init();
	// The descriptor that the owner gets is a socket that is used for nothing; its inode tells it from any other file.
	Fd handle(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
	int error = handle ? open_all(hatch) : errno;
	if (error == 0 && !inode_of(handle.get(), &hatch->inode))
		error = EBADF;
	if (error != 0) {
		destroy(hatch);
		return error;
	}
	hatch->fd = *fd = handle.release();
	MutexLock hold(list_lock);
	hatch->next = list;
	list = hatch;
	return 0;
}

// Looks at all hatches of the process: they are few.
Hatch *hatch_with_most(std::atomic<size_t> Hatch::*amount) REQUIRES(list_lock)
{
	Hatch *most = list;
	for (Hatch *hatch = list; hatch != nullptr; hatch = hatch->next) {
		if (hatch->*amount > most->*amount)
			most = hatch;
	}
	return most;
}

// Claims the revocation: of two at once, the second finds no hatch.
Hatch *begin_revoke(int fd)
{
	FoundHatch found(fd);
	if (!found)
		return nullptr;
	found->revoked = true;
	return &*found;
}

void unlist(Hatch *hatch)
{
	MutexLock hold(list_lock);
	Hatch **link = &list;
	while (*link != hatch)
		link = &(*link)->next;
	*link = hatch->next;
}

// Returns when no other thread of the hatch is left, nor one that answers a call. True if the calling thread isn't one of them either.
bool wait_for_threads(Hatch *hatch)
{
	int own = running_hatch() == hatch ? 1 : 0;
	MutexLock hold(hatch->lock);
	while (hatch->threads > own || hatch->uses > 0)
		hatch->ended.wait(hatch->lock);
	hatch->orphan = own != 0;
	return own == 0;
}

void end(Hatch *hatch)
{
	{
		MutexLock hold(hatch->lock);
		forget_listener(hatch);
		detach(&hatch->point);
		hang_up(hatch);
	}
	unlist(hatch);                              // not before: a child that was forked until here closed all of it
	(void) eventfd_write(hatch->stop.get(), 1); // an empty counter takes it
	if (wait_for_threads(hatch))
		destroy(hatch);
}

int attach_locked(Hatch *hatch, const char *path) REQUIRES(hatch->lock)
{
	if (is_attached(hatch->point))
		return EBUSY;
	forget_listener(hatch);
	detach(&hatch->point);
	if (int error = attach_to(path, &hatch->point))
		return error;
	(void) pthread_sigmask(SIG_SETMASK, nullptr, &hatch->signals);
	int error = watch_listener(hatch);
	if (error == 0 && hatch->threads == 0)
		error = start_thread(hatch);
	if (error != 0) {
		forget_listener(hatch);
		detach(&hatch->point);
	}
	return error;
}

int attach(Hatch *hatch, const char *path)
{
	MutexLock hold(hatch->lock);
	return attach_locked(hatch, path);
}

} // namespace

// It holds list_lock as long as it lives. No header shows that lock, so the analysis can't be told.
FoundHatch::FoundHatch(int fd) NO_THREAD_SAFETY_ANALYSIS
{
	enter_process();
	list_lock.lock();
	Hatch **link = find_locked(fd);
	hatch_ = link == nullptr ? nullptr : *link;
}

FoundHatch::~FoundHatch() NO_THREAD_SAFETY_ANALYSIS
{
	list_lock.unlock();
}

void evict_connection(const Peer *but)
{
	MutexLock hold_list(list_lock);
	Hatch *most = hatch_with_most(&Hatch::live);
	if (most == nullptr)
		return;
	MutexLock hold(most->lock);
	if (Peer *peer = longest_unused(most, but, all_live))
		drop(most, peer);
}

void evict_held()
{
	MutexLock hold_list(list_lock);
	Hatch *most = hatch_with_most(&Hatch::held);
	if (most == nullptr)
		return;
	MutexLock hold(most->lock);
	if (Peer *peer = longest_holding(most))
		drop(most, peer);
}

bool is_own_hatch(int fd)
{
	return static_cast<bool>(FoundHatch(fd));
}

void destroy(Hatch *hatch) NO_THREAD_SAFETY_ANALYSIS // no other thread has it any more
{
	while (Peer *peer = hatch->peers.first) {
		leave_queue(peer);
		leave(hatch, peer);
		delete peer;
	}
	forget_sources(hatch);
	forget_channels(hatch);
	assert(hatch->held == 0 && hatch->live == 0 && hatch->in_ring == 0 && hatch->ring.empty());
	hatch->lock.destroy();
	hatch->accept_lock.destroy();
	hatch->ended.destroy();
	delete hatch;
}

} // namespace hatch

int hatch_create(hatch_handler_t *handler, void *cookie, unsigned int attributes)
{
	CancellationWaits cancellation;
	if (handler == nullptr || (attributes & ~HATCH_REFUSE_DESC) != 0)
		return fail_with(EINVAL);
	hatch::enter_process();
	int fd = -1;
	if (int error = hatch::make(handler, cookie, &fd))
		return fail_with(error);
	return fd;
}

int hatch_setparam(int fd, int parameter, size_t value)
{
	hatch::FoundHatch found(fd);
	if (!found)
		return fail_with(EBADF);
	if (parameter != HATCH_PARAM_DATA_MIN)
		return fail_with(EINVAL);
	found->data_min = value;
	return 0;
}

int fattach(int fd, const char *path)
{
	CancellationWaits cancellation;
	hatch::FoundHatch found(fd);
	int error = found ? hatch::attach(&*found, path) : EBADF;
	return fail_with(error);
}

int hatch_revoke(int fd)
{
	CancellationWaits cancellation;
	hatch::Hatch *hatch = hatch::begin_revoke(fd);
	if (hatch == nullptr)
		return fail_with(EBADF);
	(void) close(fd); // nothing was ever written to it
	hatch::end(hatch);
	return 0;
}
