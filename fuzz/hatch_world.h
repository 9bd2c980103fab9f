// A place for hatches of the fuzzer's own process, and a database file beside them.
#ifndef FUZZ_HATCH_WORLD_H
#define FUZZ_HATCH_WORLD_H

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "base/guards.h"
#include "libostrel_hatches.h"
#include "libostrel_impl.h"

inline void demand(bool condition)
{
	if (!condition)
		abort();
}

// Lives as long as the process; the directory goes at its orderly end.
class HatchWorld {
public:
	HatchWorld() { demand(mkdtemp(directory_) != nullptr); }
	HatchWorld(const HatchWorld &) = delete;
	HatchWorld &operator=(const HatchWorld &) = delete;
	~HatchWorld()
	{
		if (hatch_ != -1)
			(void) hatch_revoke(hatch_);
		for (const char *name : {"hatch", "db", "db.new"})
			(void) unlink(path(name).c_str());
		(void) rmdir(directory_);
	}
	std::string path(const char *name) const { return std::string(directory_) + "/" + name; }

	void serve(hatch_handler_t *handler, void *cookie)
	{
		Fd file(open(path("hatch").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
		demand(static_cast<bool>(file));
		hatch_ = hatch_create(handler, cookie, HATCH_REFUSE_DESC);
		demand(hatch_ != -1 && fattach(hatch_, path("hatch").c_str()) == 0);
	}

private:
	char directory_[32] = "/tmp/ostrel-fuzz-XXXXXX";
	int hatch_ = -1;
};

#endif
