// The texts that callers give and get.
#ifndef MERIDON_RPY_TEXTS_H
#define MERIDON_RPY_TEXTS_H

#include <string_view>
#include <sys/types.h>

#include "base/guards.h"

namespace rpy {

// A text in memory of its own.
using Text = Handle<char, free_heap>;
bool copy_text(std::string_view from, Text *to);

// Copies a text out, cut to fit. Gives its length.
ssize_t give_text(std::string_view text, char *buffer, size_t size);

// A name or type that a caller gives; empty if it can't be one.
std::string_view name_of(const char *text);

} // namespace rpy

#endif
