// The inside of setting files aside, for libostrel_obsolete.cc and for tests.
#ifndef LIBOSTREL_OBSOLETE_H
#define LIBOSTREL_OBSOLETE_H

#include <dirent.h>

#include "libostrel.h"

extern char *ostrel_file_regexp;
int ostrel_file_select(const struct dirent *entry);

#endif
