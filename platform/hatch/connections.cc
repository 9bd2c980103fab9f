// One table for the process: the idle connections by their last use, those in use, and the servers met last. A forked child
// closes what it inherited and begins with an empty table.
#include "hatch/connections.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <poll.h>
#include <pthread.h>

#include "base/process_mark.h"
#include "base/thread_safety.h"
#include "hatch/wire.h"

namespace hatch {
namespace {

constexpr size_t servers_max = 64;

struct KnownServer {
	Attachment attachment;
	pid_t pid;
};

struct Table {
	Connection *idle[kept_max]; // the last is the one used last
	size_t idle_count;
	Row<Connection, &Connection::used> used;
	KnownServer servers[servers_max];
	size_t servers_met; // in all: the next one is stored at servers_met % servers_max
};

Mutex table_lock;
Table table GUARDED_BY(table_lock);
ProcessMark table_process;

void close_all() REQUIRES(table_lock)
{
	for (size_t i = 0; i < table.idle_count; i++)
		delete table.idle[i];
	table.idle_count = 0;
	// Those in use belong to threads that a child doesn't have, or to a call that a signal handler interrupted to fork:
	// that call goes on in the child, and fails.
	for (Connection *connection = table.used.first; connection != nullptr; connection = connection->used.next)
		connection->socket.reset();
}

void renew() NO_THREAD_SAFETY_ANALYSIS // no other thread has it yet
{
	table_lock.init();
	close_all();
	table.servers_met = 0; // in another namespace they have other numbers
}

void before_fork() NO_THREAD_SAFETY_ANALYSIS // in_parent() gives the lock up, or in_child()
{
	table_process.enter(renew); // another thread may be about to make the lock
	table_lock.lock();
}

void in_parent() NO_THREAD_SAFETY_ANALYSIS // before_fork() took it
{
	table_lock.unlock();
}

// At once: a child that never makes a call must not keep its parent's connections open either.
void in_child()
{
	if (!table_process.is_own())
		in_parent(); // releases what this thread locked
	table_process.enter(renew);
}

// Comes before the lock is taken.
void enter_process()
{
	static pthread_once_t once = PTHREAD_ONCE_INIT;
	(void) pthread_once(&once, [] {
		(void) _meridon_process(); // its handler of a fork has to run before in_child()
		(void) pthread_atfork(before_fork, in_parent, in_child);
	});
	table_process.enter(renew);
}

Connection *remove_idle(size_t i) REQUIRES(table_lock)
{
	Connection *connection = table.idle[i];
	std::move(table.idle + i + 1, table.idle + table.idle_count, table.idle + i);
	table.idle_count--;
	return connection;
}

KnownServer *find_server(const Attachment &attachment) REQUIRES(table_lock)
{
	size_t count = std::min(table.servers_met, servers_max);
	for (size_t i = 0; i < count; i++) {
		if (table.servers[i].attachment == attachment)
			return &table.servers[i];
	}
	return nullptr;
}

void note_server(const Attachment &attachment, pid_t pid) REQUIRES(table_lock)
{
	if (find_server(attachment) == nullptr)
		table.servers[table.servers_met++ % servers_max] = {attachment, pid};
}

// Servers that have gone leave connections that no call would ever find again.
void drop_hung_up() REQUIRES(table_lock)
{
	struct pollfd looks[kept_max];
	size_t count = table.idle_count;
	for (size_t i = 0; i < count; i++)
		looks[i] = {table.idle[i]->socket.get(), 0, 0};
	if (poll(looks, count, 0) <= 0)
		return;
	for (size_t i = count; i-- > 0;) {
		if ((looks[i].revents & (POLLHUP | POLLERR)) != 0)
			delete remove_idle(i);
	}
}

} // namespace

Connection *take_connection(const Attachment &attachment, uid_t user)
{
	enter_process();
	MutexLock hold(table_lock);
	for (size_t i = table.idle_count; i-- > 0;) {
		if (table.idle[i]->attachment != attachment)
			continue;
		Connection *connection = remove_idle(i);
		if (connection->user == user) {
			table.used.join(connection);
			return connection;
		}
		delete connection;
	}
	return nullptr;
}

int make_connection(int fd, const Attachment &attachment, uid_t user, int seconds, Connection **out)
{
	auto *connection = new (std::nothrow) Connection{};
	if (connection == nullptr)
		return ENOMEM;
	pid_t server;
	int error = connect_to_server(fd, attachment, seconds, &connection->socket, &server);
	if (error != 0) {
		delete connection;
		return error;
	}
	connection->attachment = attachment;
	connection->user = user;
	connection->piece = prepare_sending(connection->socket.get());
	enter_process();
	MutexLock hold(table_lock);
	drop_hung_up();
	note_server(attachment, server);
	table.used.join(connection);
	*out = connection;
	return 0;
}

void keep_connection(Connection *connection)
{
	MutexLock hold(table_lock);
	table.used.leave(connection);
	if (table.idle_count == kept_max)
		delete remove_idle(0);
	table.idle[table.idle_count++] = connection;
}

void drop_connection(Connection *connection)
{
	enter_process(); // the first call of a child may be this one
	MutexLock hold(table_lock);
	table.used.leave(connection);
	delete connection;
}

void forget_connections(const Attachment &attachment)
{
	enter_process();
	MutexLock hold(table_lock);
	for (size_t i = table.idle_count; i-- > 0;) {
		if (table.idle[i]->attachment == attachment)
			delete remove_idle(i);
	}
}

bool known_server(const Attachment &attachment, pid_t *server)
{
	enter_process();
	MutexLock hold(table_lock);
	const KnownServer *found = find_server(attachment);
	if (found != nullptr)
		*server = found->pid;
	return found != nullptr;
}

} // namespace hatch
