#include "golden_rows.h"

#include <sstream>

#include <gtest/gtest.h>

#include "scratch.h"
#include "test_paths.h"

namespace {

std::string without_escapes(const std::string &field)
{
	static const std::string letters = "nrtv0\\", bytes("\n\r\t\v\0\\", 6);
	std::string text;
	for (size_t i = 0; i < field.size(); i++) {
		if (field[i] != '\\') {
			text += field[i];
		} else if (field.at(++i) == 'x') {
			text += static_cast<char>(std::stoi(field.substr(i + 1, 2), nullptr, 16));
			i += 2;
		} else {
			text += bytes.at(letters.find(field[i]));
		}
	}
	return text;
}

} // namespace

std::vector<std::string> split_text(const std::string &text, char delimiter)
{
	std::vector<std::string> parts;
	std::istringstream in(text + delimiter);
	for (std::string part; std::getline(in, part, delimiter);)
		parts.push_back(part);
	return parts;
}

std::vector<GoldenRow> golden_rows(const std::string &file, const std::string &kind)
{
	std::vector<GoldenRow> rows;
	for (const std::string &line : split_text(file_text(TEST_SOURCE_DIR "/tests/golden/" + file), '\n')) {
		if (line.empty() || line[0] == '#')
			continue;
		GoldenRow row = {line, split_text(line, '\t')};
		for (std::string &field : row.fields)
			field = without_escapes(field);
		if (!kind.empty() && row[0] != kind)
			continue;
		if (!kind.empty())
			row.fields.erase(row.fields.begin());
		rows.push_back(row);
	}
	EXPECT_FALSE(rows.empty()) << file << " " << kind;
	return rows;
}
