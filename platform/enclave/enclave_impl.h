// What the sources of the enclave room share. Everything here makes system calls alone, so that a forked child may
// use it, and reports in errno values.
#ifndef MERIDON_ENCLAVE_IMPL_H
#define MERIDON_ENCLAVE_IMPL_H

#include <meridon/enclave.h>

#include "base/guards.h"

// Where the registry lies, and the mark of the enclave that a process is in; both below the prefix.
inline constexpr char enclave_registry_path[] = "run/enclaves";
inline constexpr char enclave_mark_path[] = "run/enclave";

// Reads a record; `dir` is the registry's directory.
int enclave_read_record(int dir, enclaveid_t id, enclave_info_t *info);

// The record of an enclave for who wants to go there: EINVAL if there is none, ESRCH if it can't be understood, and never
// ENOENT or ENOTDIR, which callers would read as a missing file.
int enclave_find_record(enclaveid_t id, enclave_info_t *info);

// Whether two processes share the namespaces that decide what a path means: 0, or ESRCH.
int enclave_same_tree(pid_t a, pid_t b);

// Opens the root directory of a process.
int enclave_open_process_root(pid_t pid, Fd *root);

// Opens the registry's directory.
int enclave_open_registry(Fd *dir);

// Opens the file of the registry's locks, which is made at need: EACCES for who may not write the registry.
int enclave_open_locks(int dir, Fd *locks);

// Locks a byte of that file as long as it is open: that of an enclave, or that of ENCLAVE_ID_GLOBAL for the registry itself.
// `command` is F_OFD_SETLKW, or F_OFD_SETLK, which gives EAGAIN if somebody else has it.
int enclave_lock(int locks, enclaveid_t id, int command);

// A leader, held so that its process id can't come to mean another process.
struct EnclaveLeader {
	Fd process;
	Fd root;               // its root directory
	int namespaces = 0;    // those that differ from this process's, as CLONE_NEW... bits
	bool confined = false; // its root isn't this process's root
};

// Opens the leader that a record names. ESRCH if it has ended.
int enclave_open_leader(const enclave_info_t *info, EnclaveLeader *leader);

// Reads the capability bounding set of the leader that a record names. ESRCH if it has ended.
int enclave_read_bounding_set(const enclave_info_t &info, uint64_t *capabilities);

#endif
