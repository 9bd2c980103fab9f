// ostrel check: what is wrong with a database file, line by line. It reads the file itself, with the library's own
// parser, since the library passes over damaged lines in silence.
//
// Divisions: findings; pieces of a line; values; writing back; lines; files.
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>
#include <unordered_map>

#include <fmt/format.h>

#include "command.h"
#include "database.h"
#include "document.h"
#include "libostrel_files_blocks.h"
#include "libostrel_lines.h"
#include "lines.h"
#include "shared/terminal.h"
#include "stores.h"
#include "text.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	app.add_option("DB", options.words, "The databases")->required();
	declare_enclave(app, options.enclave, "The enclave in which the databases lie");
	app.add_flag("--case", options.case_sensitive, "Compare identifiers with case");
}

// ---- Findings ----

struct Finding {
	size_t line; // 0: the file as a whole
	const char *kind;
	std::string message;
};

class Findings {
public:
	Findings(std::string database, Json &list) : database_(std::move(database)), list_(list) {}

	void add(const Finding &finding)
	{
		count_++;
		if (reporting_json()) {
			Json row;
			row["database"] = text_to_json(database_);
			if (finding.line != 0)
				row["line"] = finding.line;
			row["kind"] = finding.kind;
			row["message"] = visible(finding.message);
			list_.push_back(row);
			return;
		}
		fmt::print("{}{}: {}: {}\n", visible(database_),
		    finding.line == 0 ? "" : fmt::format(":{}", finding.line), finding.kind, visible(finding.message));
	}
	size_t count() const { return count_; }

private:
	std::string database_;
	Json &list_;
	size_t count_ = 0;
};

// ---- Pieces of a line ----

// Cuts with the library's tokenizer, in a copy: the tokenizer writes into its input.
std::vector<std::string> cut(std::string text, char delimiter)
{
	std::vector<std::string> pieces;
	char *next = text.data();
	while (char *piece = ostrel_tokenize_by_unescaped_delim(next, delimiter, &next))
		pieces.emplace_back(piece);
	return pieces;
}

// Splits a text at its first unescaped delimiter.
std::pair<std::string, std::string> cut_once(std::string text, char delimiter)
{
	char *rest = nullptr;
	std::string first = ostrel_tokenize_by_unescaped_delim(text.data(), delimiter, &rest);
	return {first, rest == nullptr ? "" : rest};
}

List empty_list()
{
	attrlist_t *list = nullptr;
	if (attrlist_alloc(&list, ATL_UNIQUE_NAME, 0) != 0)
		throw std::bad_alloc();
	return List(list);
}

bool piece_parses(std::string piece, ostrel_error_t (*parse)(char *piece, attrlist_t **list))
{
	List list = empty_list();
	attrlist_t *target = list.get();
	ostrel_error_t result = parse(piece.data(), &target);
	if (result == OSTREL_NO_MEMORY)
		throw std::bad_alloc();
	return result == OSTREL_SUCCESS;
}

std::string why_property_fails(const std::string &piece)
{
	auto [name, rest] = cut_once(piece, '=');
	if (piece.empty())
		return "an empty property: a ; too many";
	if (rest.empty())
		return fmt::format("the property '{}' has no type", name);
	std::string word = cut_once(rest, ',').first;
	if (str2data_type(word.c_str()) == DATA_TYPE_UNKNOWN)
		return fmt::format("the type '{}' of the property {} isn't known", word, name);
	return fmt::format("a value of the property {} is neither true nor false", name);
}

std::string why_line_fails(const std::string &line)
{
	auto [identifiers, properties] = cut_once(line, '\t');
	for (const std::string &piece : cut(identifiers, ';'))
		if (!piece_parses(piece, ostrel_parse_nvstr))
			return fmt::format("{} can't be the name of an identifier", cut_once(piece, '=').first);
	for (const std::string &piece : cut(properties, ';'))
		if (!piece_parses(piece, ostrel_parse_ntv))
			return why_property_fails(piece);
	return "the line doesn't parse";
}

// ---- Values ----

// The range of a type's numbers on a line. Unsigned numbers may be written as the signed number of the same bits.
constexpr struct {
	data_type_t type;
	int64_t least, greatest;
} number_ranges[] = {
    {DATA_TYPE_INT32_ARRAY, INT32_MIN, INT32_MAX},
    {DATA_TYPE_UINT32_ARRAY, INT32_MIN, UINT32_MAX},
    {DATA_TYPE_INT64_ARRAY, INT64_MIN, INT64_MAX},
    {DATA_TYPE_UINT64_ARRAY, INT64_MIN, INT64_MAX},
};

bool number_is_read_as_written(const std::string &text, int64_t least, int64_t greatest)
{
	int64_t value = 0;
	auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
	return error == std::errc() && end == text.data() + text.size() && value >= least && value <= greatest;
}

void check_numbers(const std::string &piece, size_t number, Findings &findings)
{
	auto [name, rest] = cut_once(piece, '=');
	auto [word, values] = cut_once(rest, ',');
	data_type_t type = str2data_type(word.c_str());
	for (const auto &range : number_ranges) {
		if (range.type != type || values.empty())
			continue;
		for (const std::string &value : cut(values, ','))
			if (!number_is_read_as_written(value, range.least, range.greatest))
				findings.add({number, "number",
				    fmt::format("'{}' in the property {} isn't read as it stands: it is no {}", value,
					name, word)});
	}
}

// ---- Writing back ----

// The first property that can't be written by itself; empty if there is none.
std::string unstorable_property(attrlist_t *props)
{
	ostrel_line line;
	for (attrpair_t *pair = nullptr; (pair = attrlist_next_attrpair(props, pair)) != nullptr;) {
		List one = empty_list();
		if (attrlist_add_attrpair(one.get(), pair) != 0)
			throw std::bad_alloc();
		if (ostrel_format_line(&line, "", one.get()) != OSTREL_SUCCESS)
			return attrpair_name(pair);
	}
	return "";
}

// Why an object that was read can't be written again; empty if it can. Such an object makes every update of its database
// fail.
std::string why_not_written_back(attrlist_t *id, attrlist_t *props)
{
	char text[OSTREL_IDSTR_SIZE];
	if (ostrel_check_identifiers(id) != OSTREL_SUCCESS)
		return "an identifier ends in a backslash";
	if (ostrel_idlist2idstr(id, text) != OSTREL_SUCCESS)
		return fmt::format("the identifiers take more than {} bytes", sizeof(text) - 1);
	ostrel_line line;
	if (ostrel_format_line(&line, text, props) == OSTREL_SUCCESS)
		return "";
	std::string property = unstorable_property(props);
	if (property.empty())
		return fmt::format("the line would have more than {} bytes", OSTREL_LINE_MAX);
	return fmt::format("a value of the property {} takes more than {} bytes", property, OSTREL_ESCAPED_SIZE - 1);
}

// ---- Lines ----

class LineChecker {
public:
	LineChecker(Findings &findings, bool case_sensitive) : findings_(findings), case_sensitive_(case_sensitive) {}

	void check(const Line &line)
	{
		size_t number = line.number;
		std::string_view bytes = line.bytes;
		if (line.length > OSTREL_LINE_MAX) {
			findings_.add({number, "long",
			    fmt::format(
				"the line has {} bytes, more than {}, and isn't read", line.length, OSTREL_LINE_MAX)});
			return;
		}
		if (!bytes.empty() && bytes.back() == '\n')
			bytes.remove_suffix(1);
		size_t nul = bytes.find('\0');
		if (nul != std::string_view::npos) {
			findings_.add({number, "nul",
			    fmt::format("a NUL byte at column {} ends what is read of the line", nul + 1)});
			bytes = bytes.substr(0, nul);
		}
		while (!bytes.empty() && ostrel_line_space(bytes[0]))
			bytes.remove_prefix(1);
		if (bytes.empty() || bytes[0] == '#')
			return;
		if (bytes.back() == '\r')
			findings_.add({number, "crlf", "the line ends in CR LF, and the CR counts as a part of it"});
		check_object(number, std::string(bytes));
	}

private:
	void check_object(size_t number, const std::string &line)
	{
		std::string copy = line;
		attrlist_t *id = nullptr, *props = nullptr;
		ostrel_error_t result = ostrel_line2attrlist(copy.data(), &id, &props);
		List owned_id(id), owned_props(props);
		if (result == OSTREL_NO_MEMORY)
			throw std::bad_alloc();
		if (result != OSTREL_SUCCESS) {
			findings_.add({number, "syntax", why_line_fails(line) + "; the line isn't read"});
			return;
		}
		std::string unwritten = why_not_written_back(id, props);
		if (!unwritten.empty())
			findings_.add({number, "unwritable", unwritten + "; no update can write the line back"});
		Object object = object_from_lists(id, props);
		auto [identifiers, properties] = cut_once(line, '\t');
		check_names(number, cut(identifiers, ';').size(), cut_properties(properties).size(), object);
		for (const std::string &piece : cut_properties(properties))
			check_numbers(piece, number, findings_);
		auto [first, fresh] = lines_.emplace(identity(object.id, case_sensitive_), number);
		if (!fresh)
			findings_.add({number, "doubled",
			    fmt::format("line {} has the same identifiers: {}", first->second, id_text(object.id))});
	}

	// Without a TAB there are no properties, not one that is empty.
	static std::vector<std::string> cut_properties(const std::string &text)
	{
		return text.empty() ? std::vector<std::string>() : cut(text, ';');
	}

	void check_names(size_t number, size_t identifiers, size_t properties, const Object &object)
	{
		if (identifiers != object.id.size() || properties != object.props.size())
			findings_.add(
			    {number, "repeated", "a name stands twice in the line; only the last one is read"});
		for (const auto &[name, value] : object.id)
			if (name.empty() || name.find_first_of("\r ") != std::string::npos)
				findings_.add(
				    {number, "identifier", fmt::format("'{}' is an odd name of an identifier", name)});
	}

	Findings &findings_;
	bool case_sensitive_;
	std::unordered_map<std::string, size_t> lines_;
};

// ---- Files ----

class FileChecker final : public Inspector {
public:
	FileChecker(Findings &findings, bool case_sensitive) : findings_(findings), lines_(findings, case_sensitive) {}

	void see_line(const Line &line) override { lines_.check(line); }
	void see_raw_line(const Line &line) override
	{
		if (line.has_nul)
			findings_.add({line.number, "nul", "a NUL byte ends what is read of the line"});
	}
	void see_temporary_file(const std::string &path, bool is_usable) override
	{
		findings_.add({0, "temporary",
		    is_usable
			? fmt::format(
			      "{} is left from an update that failed, or that runs now; the next one uses it again",
			      path)
			: fmt::format(
			      "{} isn't a plain file, and keeps every update from being made; move it away", path)});
	}

private:
	Findings &findings_;
	LineChecker lines_;
};

size_t check_database(const Database &database, Json &list)
{
	Findings findings(database.label(), list);
	FileChecker checker(findings, database.case_sensitive());
	database.inspect(checker);
	return findings.count();
}

Exit run(const Options &options)
{
	Exit code = Exit::done;
	Json list = Json::array();
	for (const std::string &name : options.words) {
		try {
			const std::unique_ptr<Database> database =
			    open_database(name, enclave_option(options.enclave), options.case_sensitive);
			if (check_database(*database, list) > 0 && code == Exit::done)
				code = Exit::differences;
		} catch (const Failure &failure) { // the others are still checked
			report(failure);
			code = failure.code;
		}
	}
	if (options.json)
		write_json(Json{{"findings", list}});
	return code;
}

} // namespace

const Command check_command = {{"check", "Tell what is wrong with database files, line by line"}, declare, run};
