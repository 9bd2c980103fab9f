// Tables of property descriptors.
#include "table.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

#include <fmt/format.h>

#include "element.h"

namespace {

constexpr const char *format_name = "ostrel-properties";
constexpr int format_version = 1;

constexpr struct {
	const char *word;
	data_type_t type;
} stored_types[] = {
    {"string", DATA_TYPE_STRING},
    {"boolean", DATA_TYPE_BOOLEAN},
    {"int64", DATA_TYPE_INT64},
    {"uint64", DATA_TYPE_UINT64},
    {"none", DATA_TYPE_UNKNOWN},
};

data_type_t type_from_json(const Json &json, const std::string &path)
{
	require_kind(json, Json::value_t::string, path);
	std::string words;
	for (const auto &row : stored_types) {
		if (json == row.word)
			return row.type;
		words += fmt::format("{}{}", words.empty() ? "" : ", ", row.word);
	}
	bad_element(path, fmt::format("{} isn't a stored type: these are {}", json.dump(), words));
}

uint64_t number_from_json(const Json &json, const std::string &path)
{
	if (!json.is_number_unsigned())
		bad_element(
		    path, fmt::format("{} where a whole number from 0 to {} is needed", json.dump(), UINT64_MAX));
	return json.get<uint64_t>();
}

bool flag_from_json(const Json &json, const char *key, bool otherwise, const std::string &path)
{
	if (!json.contains(key))
		return otherwise;
	require_kind(json[key], Json::value_t::boolean, pointer(path, key));
	return json[key].get<bool>();
}

// Refuses two keys of one name: the parser alone would silently keep the last.
Json parse(std::istream &in)
{
	constexpr int deepest = 8;
	std::vector<std::set<std::string>> keys;
	return Json::parse(in, [&](int depth, Json::parse_event_t event, Json &parsed) {
		if (depth > deepest)
			bad_element("", "nested too deep");
		if (event == Json::parse_event_t::object_start)
			keys.emplace_back();
		else if (event == Json::parse_event_t::object_end)
			keys.pop_back();
		else if (event == Json::parse_event_t::key && !keys.back().insert(parsed.get<std::string>()).second)
			bad_element("", fmt::format("the key {} is given twice in one object", parsed.dump()));
		return true;
	});
}

} // namespace

PropertyTable::PropertyTable(const std::string &file)
{
	try {
		read(file);
	} catch (const Json::exception &error) {
		throw Failure(Exit::invalid, parse_error_text(error)).in(file).next("ostrel(1) describes the table");
	} catch (Failure &failure) {
		failure.in(file).next("ostrel(1) describes the table");
		throw;
	}
}

void PropertyTable::read(const std::string &file)
{
	errno = 0;
	std::ifstream in(file, std::ios::binary);
	if (!in || in.peek() == std::ifstream::traits_type::eof()) {
		int error = errno;
		if (error != 0)
			throw Failure(exit_of(ostrel_errno2error(error)), strerror(error))
			    .next("name the file of the table");
	}
	Json document = parse(in);
	require_keys(document, {"format", "version", "properties"}, "");
	if (member(document, "format", "") != format_name)
		bad_element("/format", fmt::format("the format isn't \"{}\"", format_name));
	if (member(document, "version", "") != format_version)
		bad_element("/version", fmt::format("this version of the format isn't known; {} is", format_version));
	const Json &properties = member(document, "properties", "");
	require_kind(properties, Json::value_t::array, "/properties");
	for (size_t i = 0; i < properties.size(); i++)
		add(properties[i], pointer("/properties", std::to_string(i)));
	descs_.push_back({}); // the end
}

void PropertyTable::check_name(const char *name, const std::string &path) const
{
	for (const ostrel_propdesc_t &desc : descs_)
		if (strcmp(desc.npd_name, name) == 0)
			bad_element(path, fmt::format("the property {} is described twice", name));
}

void PropertyTable::add(const Json &json, const std::string &path)
{
	require_keys(json, {"name", "description", "type", "convert", "delimiters", "bitfield", "values"}, path);
	ostrel_propdesc_t desc = {};
	desc.npd_name = keep(member(json, "name", path), pointer(path, "name"));
	check_name(desc.npd_name, pointer(path, "name"));
	desc.npd_type = type_from_json(member(json, "type", path), pointer(path, "type"));
	if (json.contains("description"))
		desc.npd_description = keep(json["description"], pointer(path, "description"));
	if (json.contains("values"))
		desc.npd_vals = values(json["values"], pointer(path, "values"));
	if (json.contains("delimiters")) {
		desc.npd_flags |= OSTREL_PROP_DELIMITED;
		desc.npd_delimiters = keep(json["delimiters"], pointer(path, "delimiters"));
	}
	if (!flag_from_json(json, "convert", true, path))
		desc.npd_flags |= OSTREL_PROP_NO_CONVERT;
	if (flag_from_json(json, "bitfield", false, path))
		desc.npd_flags |= OSTREL_PROP_BITFIELD;
	if ((desc.npd_flags & OSTREL_PROP_BITFIELD) != 0 && desc.npd_vals == nullptr)
		bad_element(path, "a bitfield needs values, which name its bits");
	descs_.push_back(desc);
}

char *PropertyTable::keep(const Json &json, const std::string &path)
{
	require_kind(json, Json::value_t::string, path);
	std::string &text = texts_.emplace_back(json.get<std::string>());
	if (text.empty())
		bad_element(path, "an empty text");
	if (text.find('\0') != std::string::npos)
		bad_element(path, "a text can't hold a NUL character");
	return text.data();
}

ostrel_valdesc_t *PropertyTable::values(const Json &json, const std::string &path)
{
	require_kind(json, Json::value_t::array, path);
	std::vector<ostrel_valdesc_t> &table = values_.emplace_back();
	for (size_t i = 0; i < json.size(); i++) {
		std::string place = pointer(path, std::to_string(i));
		require_keys(json[i], {"name", "description", "value"}, place);
		ostrel_valdesc_t value = {};
		value.nvd_name = keep(member(json[i], "name", place), pointer(place, "name"));
		value.nvd_val = number_from_json(member(json[i], "value", place), pointer(place, "value"));
		if (json[i].contains("description"))
			value.nvd_description = keep(json[i]["description"], pointer(place, "description"));
		table.push_back(value);
	}
	table.push_back({}); // the end
	return table.data();
}
