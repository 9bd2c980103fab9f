// What every client of a hatch needs beside the call itself. A header alone, so that libostrel, the repository's client and the
// daemon use the same.
#ifndef MERIDON_BASE_HATCH_CLIENT_H
#define MERIDON_BASE_HATCH_CLIENT_H

#include <sys/mman.h>

#include <meridon/hatch.h>

// Whether a living server is attached at the descriptor. No call is made.
inline bool is_living_hatch(int fd, hatch_info_t *info)
{
	return hatch_info(fd, info) == 0 && (info->di_attributes & HATCH_REVOKED) == 0;
}

// Gives up the fresh mapping that a call made for its reply, if the caller's own buffer had no room for it.
class FreshReply {
public:
	FreshReply(const hatch_arg_t &arg, const char *own) : arg_(arg), own_(own) {}
	FreshReply(const FreshReply &) = delete;
	FreshReply &operator=(const FreshReply &) = delete;
	~FreshReply()
	{
		if (arg_.rbuf != own_)
			(void) munmap(arg_.rbuf, arg_.rsize);
	}

private:
	const hatch_arg_t &arg_;
	const char *own_;
};

#endif
