// Patterns on the C library's regular expressions. The compiled form of regcomp() is a tree that only regfree() takes
// apart, but our block has to be one that free() releases whole: so the block is the pattern's text, known to compile,
// and each match compiles it again. That costs some 2 to 5 microseconds, about what a look at a file's name costs anyway.
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <regex.h>

#include <meridon/regcmp.h>

#include "base/guards.h"

namespace {

class Expression {
public:
	explicit Expression(const char *pattern) : result_(regcomp(&compiled_, pattern, REG_EXTENDED)) {}
	~Expression()
	{
		if (result_ == 0)
			regfree(&compiled_);
	}
	Expression(const Expression &) = delete;
	Expression &operator=(const Expression &) = delete;

	int error() const { return result_ == 0 ? 0 : result_ == REG_ESPACE ? ENOMEM : EINVAL; }
	// The end of the match, or -1.
	regoff_t match(const char *subject) const
	{
		regmatch_t found;
		return regexec(&compiled_, subject, 1, &found, 0) == 0 ? found.rm_eo : -1;
	}

private:
	regex_t compiled_;
	int result_;
};

size_t total_length(const char *first, va_list rest)
{
	size_t length = 0;
	for (const char *part = first; part != nullptr; part = va_arg(rest, const char *))
		length += strlen(part);
	return length;
}

} // namespace

char *regcmp(const char *pattern, ...)
{
	if (pattern == nullptr) {
		errno = EINVAL;
		return nullptr;
	}
	va_list parts;
	va_start(parts, pattern);
	size_t length = total_length(pattern, parts);
	va_end(parts);

	Heap<char> block(static_cast<char *>(malloc(length + 1)));
	if (!block)
		return nullptr;
	char *end = block.get();
	va_start(parts, pattern);
	for (const char *part = pattern; part != nullptr; part = va_arg(parts, const char *))
		end = stpcpy(end, part);
	va_end(parts);

	if (int error = Expression(block.get()).error()) {
		errno = error;
		return nullptr;
	}
	return block.release();
}

char *regex(const char *compiled, const char *subject)
{
	if (compiled == nullptr || subject == nullptr)
		return nullptr;
	const Expression expression(compiled);
	if (expression.error() != 0)
		return nullptr;
	regoff_t end = expression.match(subject);
	return end < 0 ? nullptr : const_cast<char *>(subject) + end;
}
