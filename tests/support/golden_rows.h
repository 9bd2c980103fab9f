// Cases of a test that are rows of a file in tests/golden.
#ifndef TESTS_GOLDEN_ROWS_H
#define TESTS_GOLDEN_ROWS_H

#include <string>
#include <vector>

struct GoldenRow {
	std::string line; // as it stands in the file, to tell of it
	std::vector<std::string> fields;
	const std::string &operator[](size_t field) const { return fields.at(field); }
};

// The rows of a file: fields between tabs, in which \n, \r, \t, \v, \0, \xNN and \\ stand for bytes. Empty lines and those
// that begin with # aren't rows. With a `kind`: only the rows that begin with it, without it. There are some, or the test fails.
std::vector<GoldenRow> golden_rows(const std::string &file, const std::string &kind = "");

// What lies between the delimiters, also nothing.
std::vector<std::string> split_text(const std::string &text, char delimiter);

#endif
