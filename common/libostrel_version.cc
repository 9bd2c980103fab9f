// Versions of objects: digests of their packed form.
#include "libostrel_version.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "base/guards.h"
#include "libostrel_error.h"
#include "libostrel_idlist.h"

Digest ostrel_digest(const void *bytes, size_t size)
{
	const XXH128_hash_t hash = XXH3_128bits(bytes, size);
	return {hash.low64, hash.high64};
}

int ostrel_digest_file(int fd, Digest *digest)
{
	constexpr size_t size = 65536;
	const Heap<char> buffer(static_cast<char *>(malloc(size)));
	Handle<XXH3_state_t, [](XXH3_state_t *state) { (void) XXH3_freeState(state); }> state(XXH3_createState());
	if (!buffer || !state)
		return ENOMEM;
	(void) XXH3_128bits_reset(state.get());
	for (off_t at = 0;;) {
		const ssize_t got = pread(fd, buffer.get(), size, at);
		if (got == -1 && errno == EINTR)
			continue;
		if (got == -1)
			return errno;
		if (got == 0)
			break;
		(void) XXH3_128bits_update(state.get(), buffer.get(), static_cast<size_t>(got));
		at += got;
	}
	const XXH128_hash_t hash = XXH3_128bits_digest(state.get());
	*digest = {hash.low64, hash.high64};
	return 0;
}

ostrel_error_t ostrel_digest_list(attrlist_t *list, Digest *digest)
{
	Heap<char> packed;
	size_t size = 0;
	if (list != nullptr) {
		if (int error = attrlist_pack(list, packed.out(), &size, ATL_ENCODE_XDR, 0))
			return ostrel_errno2error(error);
	}
	*digest = ostrel_digest(packed.get(), size);
	return OSTREL_SUCCESS;
}

// What a caller's list may have and no stored object has: where to look, not what it is.
static bool only_chooses(const char *name)
{
	return strcmp(name, OSTREL_ID_DB_NAME) == 0 || strcmp(name, OSTREL_ID_ENCLAVE) == 0;
}

static ostrel_error_t digest_identifiers(attrlist_t *idl, Digest *digest)
{
	bool chooses = false;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(idl, pair)) != nullptr;)
		chooses = chooses || only_chooses(attrpair_name(pair));
	if (!chooses)
		return ostrel_digest_list(idl, digest);
	AttrList rest;
	if (int error = attrlist_alloc(rest.out(), ATL_UNIQUE_NAME, 0))
		return ostrel_errno2error(error);
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(idl, pair)) != nullptr;) {
		if (only_chooses(attrpair_name(pair)))
			continue;
		if (int error = attrlist_add_attrpair(rest.get(), pair))
			return ostrel_errno2error(error);
	}
	return ostrel_digest_list(rest.get(), digest);
}

ostrel_error_t ostrel_digest_object(attrlist_t *idl, attrlist_t *props, Digest *digest)
{
	Digest parts[2] = {};
	if (ostrel_error_t result = digest_identifiers(idl, &parts[0]))
		return result;
	if (ostrel_error_t result = ostrel_digest_list(props, &parts[1]))
		return result;
	*digest = ostrel_digest(parts, sizeof(parts));
	return OSTREL_SUCCESS;
}

void ostrel_print_digest(const char *prefix, const Digest &digest, ObjectVersion *version)
{
	(void) snprintf(version->text, sizeof(version->text), "%.8s:%016llx%016llx", prefix,
	    static_cast<unsigned long long>(digest.high), static_cast<unsigned long long>(digest.low));
}

ostrel_error_t ostrel_version_of(attrlist_t *idl, attrlist_t *props, ObjectVersion *version)
{
	Digest digest;
	if (ostrel_error_t result = ostrel_digest_object(idl, props, &digest))
		return result;
	ostrel_print_digest("v", digest, version);
	return OSTREL_SUCCESS;
}
