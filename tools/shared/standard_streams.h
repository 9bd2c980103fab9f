// Descriptors 0, 1 and 2 that the starter closed. The next files to be opened would get their numbers, and messages would
// go into them: into a socket, or into a database.
#ifndef TOOLS_SHARED_STANDARD_STREAMS_H
#define TOOLS_SHARED_STANDARD_STREAMS_H

#include <fcntl.h>

// Takes the numbers that are free. Input and output still fail, as they should; messages go nowhere.
inline void hold_standard_streams()
{
	constexpr int modes[] = {O_WRONLY, O_RDONLY, O_WRONLY};
	for (int fd = 0; fd < 3; fd++)
		if (fcntl(fd, F_GETFD) == -1)
			(void) open("/dev/null", modes[fd]); // the lowest number that is free: this one
}

#endif
