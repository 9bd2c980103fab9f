#include "document.h"

#include <charconv>
#include <optional>
#include <set>

#include <fmt/format.h>

#include "shared/failure.h"
#include "shared/visible.h"

namespace {

constexpr struct {
	rpy_type_t type;
	const char *word;
} type_rows[] = {
    {RPY_TYPE_BOOLEAN, "boolean"},
    {RPY_TYPE_COUNT, "count"},
    {RPY_TYPE_INTEGER, "integer"},
    {RPY_TYPE_TIME, "time"},
    {RPY_TYPE_ASTRING, "astring"},
    {RPY_TYPE_OPAQUE, "opaque"},
    {RPY_TYPE_USTRING, "ustring"},
    {RPY_TYPE_URI, "uri"},
    {RPY_TYPE_LOCATOR, "locator"},
    {RPY_TYPE_HOST, "host"},
    {RPY_TYPE_HOSTNAME, "hostname"},
    {RPY_TYPE_NET_ADDR_V4, "net_addr_v4"},
    {RPY_TYPE_NET_ADDR_V6, "net_addr_v6"},
    {RPY_TYPE_NET_ADDR, "net_addr"},
};

// ---- Texts ----

std::string to_hex(const std::string &bytes)
{
	std::string text;
	for (unsigned char byte : bytes)
		text += fmt::format("{:02x}", byte);
	return text;
}

std::optional<std::string> from_hex(std::string_view text)
{
	std::string bytes;
	if (text.size() % 2 != 0)
		return std::nullopt;
	for (size_t i = 0; i < text.size(); i += 2) {
		unsigned char byte = 0;
		auto [end, error] = std::from_chars(&text[i], &text[i] + 2, byte, 16);
		if (error != std::errc() || end != &text[i] + 2)
			return std::nullopt;
		bytes += static_cast<char>(byte);
	}
	return bytes;
}

// Decodes a name or a type. Nothing if a NUL stands anywhere but before the hexadecimal form.
std::optional<std::string> text_from_json(const std::string &text)
{
	if (text.find('\0') == text.npos)
		return text;
	std::optional<std::string> bytes = text[0] == '\0' ? from_hex(std::string_view(text).substr(1)) : std::nullopt;
	return bytes && bytes->find('\0') == bytes->npos ? bytes : std::nullopt;
}

// ---- Checking ----

[[noreturn]] void refuse(const std::string &where, const std::string &why)
{
	throw Failure(Exit::invalid, fmt::format("{}: {}", where, why))
	    .next("see cairnctl(8) for the form of a document");
}

const Json &array_in(const Json &part, const char *key, const std::string &where)
{
	if (!part.is_object() || !part.contains(key) || !part[key].is_array())
		refuse(where, fmt::format("no array '{}'", key));
	return part[key];
}

// A text that the repository takes as the name of one thing, or as a type.
std::string checked_text(const Json &part, const char *key, const std::string &where)
{
	if (!part.is_object() || !part.contains(key) || !part[key].is_string())
		refuse(where, fmt::format("something without a {}", key));
	std::optional<std::string> text = text_from_json(part[key].get_ref<const std::string &>());
	if (!text)
		refuse(where, fmt::format("a {} holds a NUL, which only begins the hexadecimal form of bytes", key));
	if (text->empty() || text->size() >= RPY_NAME_MAX)
		refuse(where, fmt::format("a {} has {} bytes, not 1 to {}", key, text->size(), RPY_NAME_MAX - 1));
	return *text;
}

std::string checked_name(const Json &part, const std::string &where, const char *key = "name")
{
	std::string name = checked_text(part, key, where);
	if (name.find('/') != name.npos)
		refuse(where, fmt::format("the {} '{}' holds a '/'", key, name));
	return name;
}

// Refuses a second thing of one name: the importer couldn't tell them apart.
void check_new(std::set<std::string> *names, const std::string &name, const std::string &where)
{
	if (!names->insert(name).second)
		refuse(where, fmt::format("two of the name '{}'", name));
}

bool fits(const Json &value, rpy_type_t type)
{
	switch (type) {
	case RPY_TYPE_BOOLEAN:
		return value.is_boolean();
	case RPY_TYPE_COUNT:
		return number_from_json<uint64_t>(value).has_value();
	case RPY_TYPE_INTEGER:
		return number_from_json<int64_t>(value).has_value();
	default:
		break;
	}
	if (value.is_string())
		return true;
	return value.is_object() && value.size() == 1 && value.contains("hex") && value["hex"].is_string() &&
	       from_hex(value["hex"].get_ref<const std::string &>());
}

void check_property(const Json &property, const std::string &where)
{
	std::string here = fmt::format("{}: property '{}'", where, checked_name(property, where));
	rpy_type_t type = property.contains("type") && property["type"].is_string()
			      ? type_by_word(property["type"].get<std::string>())
			      : RPY_TYPE_INVALID;
	if (type == RPY_TYPE_INVALID)
		refuse(here, "no known type");
	for (const Json &value : array_in(property, "values", here))
		if (!fits(value, type))
			refuse(here, fmt::format("the value {} isn't of type {}", value.dump(), type_word(type)));
}

void check_groups(const Json &groups, const std::string &where)
{
	for (const Json &group : groups) {
		std::string here = where + "/" + checked_name(group, where);
		(void) checked_name(group, here, "type");
		if (group.contains("temporary") && !group["temporary"].is_boolean())
			refuse(here, "'temporary' is neither true nor false");
		for (const Json &property : array_in(group, "properties", here))
			check_property(property, here);
		if (group.contains("groups"))
			check_groups(array_in(group, "groups", here), here);
	}
}

void check_instance(const Json &instance, const std::string &locator)
{
	check_groups(array_in(instance, "groups", locator), locator);
	std::set<std::string> names;
	for (const Json &snapshot : array_in(instance, "snapshots", locator)) {
		std::string name = checked_name(snapshot, locator), where = locator + ", snapshot " + name;
		check_new(&names, name, where);
		check_groups(array_in(snapshot, "groups", where), where);
	}
}

void check_service(const Json &service, const std::string &name)
{
	if (name.find(':') != name.npos)
		refuse(name, "the name of a service holds a ':', which begins that of an instance");
	check_groups(array_in(service, "groups", name), name);
	std::set<std::string> names;
	for (const Json &instance : array_in(service, "instances", name)) {
		std::string locator = name + ":" + checked_name(instance, name);
		check_new(&names, locator, name);
		check_instance(instance, locator);
	}
}

void check_document(const Json &document, const std::string &file)
{
	const Json version = document.is_object() ? document.value("version", Json()) : Json();
	if (!document.is_object() || document.value("format", Json()) != document_format ||
	    (version != document_version && version != 1))
		throw Failure(Exit::invalid, file + ": no document of a repository")
		    .next("give what 'cairnctl export' wrote");
	std::set<std::string> names;
	for (const Json &service : array_in(document, "services", file)) {
		std::string name = checked_text(service, "name", file);
		check_new(&names, name, file);
		check_service(service, name);
	}
}

// The nesting of a document with a group of the greatest depth: two levels for each group, those above the first group,
// and those of the last group's values.
constexpr int json_depth_max = 2 * group_depth_max + 11;

} // namespace

const char *type_word(rpy_type_t type)
{
	for (const auto &row : type_rows)
		if (row.type == type)
			return row.word;
	return "invalid";
}

rpy_type_t type_by_word(const std::string &word)
{
	for (const auto &row : type_rows)
		if (word == row.word)
			return row.type;
	return RPY_TYPE_INVALID;
}

std::string text_in(const Json &part, const char *key)
{
	return text_from_json(part.at(key).get_ref<const std::string &>()).value();
}

Json bytes_to_json(const std::string &bytes, bool opaque)
{
	return !opaque && is_utf8(bytes) ? Json(bytes) : Json{{"hex", to_hex(bytes)}};
}

Json values_as_numbers(const Json &property)
{
	const rpy_type_t type = type_by_word(property["type"].get_ref<const std::string &>());
	Json values = property["values"];
	if (type == RPY_TYPE_COUNT || type == RPY_TYPE_INTEGER)
		for (Json &value : values)
			if (value.is_string())
				value = Json::parse(value.get_ref<const std::string &>());
	return values;
}

std::string bytes_from_json(const Json &value)
{
	return value.is_object() ? from_hex(value["hex"].get_ref<const std::string &>()).value()
				 : value.get<std::string>();
}

Json parse_document(const std::string &text, const std::string &file)
{
	// Stops the parser at what lies deeper: everything that walks a document is recursive.
	auto look = [&](int depth, Json::parse_event_t, const Json &) {
		if (depth > json_depth_max)
			refuse(file, fmt::format("nested deeper than {} groups", group_depth_max));
		return true;
	};
	try {
		Json document = Json::parse(text, look);
		check_document(document, file);
		return document;
	} catch (const Json::exception &error) {
		throw Failure(Exit::invalid, fmt::format("{}: {}", file, parse_error_text(error)))
		    .next("see cairnctl(8) for the form of a document");
	}
}
