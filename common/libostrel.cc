#include "libostrel_impl.h"

const char *ostrel_strerror(ostrel_error_t) { return ""; }
