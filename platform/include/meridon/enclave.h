/*
 * Enclaves: the operating system's isolated environments. 0 is the global enclave.
 */
#ifndef MERIDON_ENCLAVE_H
#define MERIDON_ENCLAVE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef int32_t enclaveid_t;

/* The enclave of the calling process, 0 for the global one. Looked up once. Threads: any. */
enclaveid_t getenclaveid(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
