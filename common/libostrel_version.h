/*
 * Versions of objects: what a condition of a batch compares.
 *
 * A version is a digest of an object's identifiers and properties, the same for each store and on both sides of a hatch. So two
 * equal versions stand for the same object with the same content, however it came by it: an object that was changed and
 * changed back has its old version again, and a condition on it holds.
 *
 * The digest has 128 bits and no key. Who could make two contents with one version may write the object already, so it gains
 * such a writer nothing that a plain write wouldn't.
 */
#ifndef LIBOSTREL_VERSION_H
#define LIBOSTREL_VERSION_H

#include <cstddef>
#include <cstdint>

#include "libostrel.h"

constexpr size_t ostrel_version_size = 64; // room for the text, NUL included

// A printable text without blanks.
struct ObjectVersion {
	char text[ostrel_version_size];
};

struct Digest {
	uint64_t low;
	uint64_t high;

	bool operator==(const Digest &) const = default;
};

// The digest of bytes.
Digest ostrel_digest(const void *bytes, size_t size);

// The digest of all that a file holds; its offset stays. Errors: errno values of the reads; ENOMEM
int ostrel_digest_file(int fd, Digest *digest);

// The digest of a list, which may be NULL: its pairs in their order, with names, types and values.
// Errors: OSTREL_NO_MEMORY
ostrel_error_t ostrel_digest_list(attrlist_t *list, Digest *digest);

// The digest of an object, and the text that is its version. The two keys of `idl` that choose a file or an enclave don't count.
// Errors: OSTREL_NO_MEMORY
ostrel_error_t ostrel_digest_object(attrlist_t *idl, attrlist_t *props, Digest *digest);
ostrel_error_t ostrel_version_of(attrlist_t *idl, attrlist_t *props, ObjectVersion *version);

// The text of a digest: `prefix`, a colon, 32 hexadecimal digits.
void ostrel_print_digest(const char *prefix, const Digest &digest, ObjectVersion *version);

#endif
