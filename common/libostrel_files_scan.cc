// The search for candidates. At each place it first compares the `=` and the last two bytes of the value; only where these
// three fit does it compare the rest.
#include "libostrel_files_scan.h"

#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

// After so many misses another identifier is searched for.
static constexpr unsigned misses_max = 8;

static unsigned char folded(char c)
{
	unsigned char byte = static_cast<unsigned char>(c);
	return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte | 0x20) : byte;
}

static bool is_letter(char c)
{
	return folded(c) >= 'a' && folded(c) <= 'z';
}

static bool can_be_searched(const attrtext_t &value, bool with_case)
{
	if (value.length == 0 || value.length > OSTREL_LINE_MAX)
		return false;
	for (size_t i = 0; i < value.length; i++)
		if (value.text[i] == '\\' || (!with_case && static_cast<unsigned char>(value.text[i]) >= 0x80))
			return false;
	return true;
}

bool CandidateScan::prepare(const FieldMatch &match)
{
	with_case_ = match.with_case();
	if (!match.usual_case())
		return false;
	for (size_t i = 0; i < match.count(); i++) {
		const ostrel_wanted &wanted = match.wanted(i);
		if (!can_be_searched(wanted.value, with_case_))
			continue;
		// The longest value first: it is the rarest.
		size_t place = count_++;
		for (; place > 0 && needles_[place - 1].value.length < wanted.value.length; place--)
			needles_[place] = needles_[place - 1];
		needles_[place] = wanted;
	}
	return count_ > 0;
}

void CandidateScan::report_miss()
{
	if (++misses_ < misses_max)
		return;
	misses_ = 0;
	current_ = (current_ + 1) % count_;
}

// Whether the value, and a byte that can close it, follow this `=`.
bool CandidateScan::stands_at(const char *equals, const char *end) const
{
	const ostrel_wanted &needle = needles_[current_];
	const char *value = equals + 1;
	const char *after = value + needle.value.length;
	if (after < end && *after != ';' && *after != '\t' && *after != '\n' && *after != '\0')
		return false;
	if (with_case_)
		return memcmp(value, needle.value.text, needle.value.length) == 0;
	for (size_t i = 0; i < needle.value.length; i++)
		if (folded(value[i]) != folded(needle.value.text[i]))
			return false;
	return true;
}

#ifdef __SSE2__

// Which of 16 bytes equal `wanted`, once `fold` is set in them: 0x20 where case doesn't count.
static __m128i fits(const char *bytes, __m128i wanted, __m128i fold)
{
	const __m128i data = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
	return _mm_cmpeq_epi8(_mm_or_si128(data, fold), wanted);
}

const char *CandidateScan::next_fit(const char *from, const char *limit) const
{
	const attrtext_t &value = needles_[current_].value;
	const size_t far = value.length;
	const size_t near = value.length > 1 ? value.length - 1 : 1;
	auto fold_of = [&](char c) { return _mm_set1_epi8(!with_case_ && is_letter(c) ? 0x20 : 0); };
	auto byte_of = [&](char c) { return _mm_set1_epi8(static_cast<char>(with_case_ ? c : folded(c))); };
	const __m128i none = _mm_setzero_si128();
	const __m128i equals = _mm_set1_epi8('=');
	const __m128i near_byte = byte_of(value.text[near - 1]), near_fold = fold_of(value.text[near - 1]);
	const __m128i far_byte = byte_of(value.text[far - 1]), far_fold = fold_of(value.text[far - 1]);
	auto fit = [&](const char *at) {
		__m128i all = _mm_and_si128(fits(at, equals, none), fits(at + far, far_byte, far_fold));
		return static_cast<unsigned>(
		    _mm_movemask_epi8(_mm_and_si128(all, fits(at + near, near_byte, near_fold))));
	};
	for (; from < limit; from += 32) {
		unsigned places = fit(from) | fit(from + 16) << 16;
		if (places != 0)
			return from + __builtin_ctz(places);
	}
	return limit;
}

#else

const char *CandidateScan::next_fit(const char *from, const char *limit) const
{
	const void *found = from < limit ? memchr(from, '=', static_cast<size_t>(limit - from)) : nullptr;
	return found != nullptr ? static_cast<const char *>(found) : limit;
}

#endif

const char *CandidateScan::next(const char *from, const char *end) const
{
	const ostrel_wanted &needle = needles_[current_];
	if (end - from <= static_cast<ptrdiff_t>(needle.value.length))
		return end;
	const char *limit = end - needle.value.length; // after the last place where a `=` can stand
	for (const char *at = from; (at = next_fit(at, limit)) < limit; at++) {
		if (!stands_at(at, end))
			continue;
		size_t before = static_cast<size_t>(at - from);
		if (before >= needle.name.length &&
		    memcmp(at - needle.name.length, needle.name.text, needle.name.length) == 0)
			return at;
	}
	return end;
}
