#!/bin/bash
# Whether clang's thread-safety analysis would speak up: units with a mistake in their locking must not compile, and the
# same ones without it must. usage: thread_safety_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source=$2
command -v clang++-14 >/dev/null || { echo "skipped: no clang++-14 here"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

compile() {
	clang++-14 -std=c++20 -fsyntax-only -Wthread-safety -Werror -I"$source/common" -I"$source/platform" \
		-I"$source/platform/include" -x c++ - 2>"$work/messages"
}

# check NAME UNIT: the unit compiles as it stands, and not with MISTAKE defined.
check() {
	if ! compile <<<"$2"; then
		echo "thread_safety_test: $1 is right and is refused:"; cat "$work/messages"; failures=$((failures + 1))
	fi
	if compile <<<"#define MISTAKE
$2" || ! grep -q 'Wthread-safety' "$work/messages"; then
		echo "thread_safety_test: the mistake isn't found: $1"; failures=$((failures + 1))
	fi
}

check "a field is used under its mutex" '
#include "base/thread_safety.h"
struct Counter { Mutex mutex; int value GUARDED_BY(mutex); };
int get(Counter &c)
{
#ifndef MISTAKE
	MutexLock lock(c.mutex);
#endif
	return c.value;
}'

check "a reader does not write" '
#include "base/thread_safety.h"
struct Counter { RwLock lock; int value GUARDED_BY(lock); };
void set(Counter &c)
{
#ifdef MISTAKE
	ReadLock lock(c.lock);
#else
	WriteLock lock(c.lock);
#endif
	c.value = 1;
}'

check "a lock that was given up guards nothing" '
#include "base/thread_safety.h"
struct Counter { Mutex mutex; int value GUARDED_BY(mutex); };
int wait_and_get(Counter &c) REQUIRES(c.mutex)
{
	Unlocked wait(c.mutex);
#ifdef MISTAKE
	return c.value;
#else
	return 0;
#endif
}'

check "what is locked is unlocked" '
#include "libostrel_impl.h"
void lock_for_a_while(ostrel_db_t db)
{
	ostrel_db_wrlock(db);
#ifndef MISTAKE
	ostrel_db_unlock(db);
#endif
}'

check "a read gives up the write lock first" '
#include "libostrel_impl.h"
ostrel_error_t update(ostrel_db_t db, attrlist_t *idl, attrlist_t **props) REQUIRES(db->db_lock)
{
#ifndef MISTAKE
	ostrel_db_unlock(db);
#endif
	ostrel_error_t result = ostrel_db_read(db, idl, 0, props);
#ifndef MISTAKE
	ostrel_db_wrlock(db);
#endif
	return result;
}'

check "only the leader of the updates changes the repository" '
#include "../repository/model.h"
void forget(repository::Model &model, repository::Node *node)
{
#ifndef MISTAKE
	InRole leading(model.leader);
#endif
	WriteLock hold(model.lock);
	model.remove(node);
}'
check "an update looks at the tree as its leader, or under the lock" '
#include "../repository/changes.h"
rpy_error_t decide(repository::Model &model, repository::Update *update, repository::Rows *rows) REQUIRES(model.leader)
{
#ifndef MISTAKE
	model.look_as_leader();
#endif
	return update->prepare(model, rows);
}'

[ "$failures" -eq 0 ]
