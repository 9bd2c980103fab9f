// JSON documents. Divisions: writing, elements, reading.
#include "document.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <istream>

#include <fmt/format.h>

#include "element.h"
#include "shared/visible.h"

namespace {

constexpr const char *format_name = "ostrel-objects";
constexpr int format_version = 2; // version 1, which is read as well, has numbers of 64 bits as numbers alone

// ---- Writing ----

Json value_to_json(const ValueType &type, const std::string &value)
{
	if (type.quoted)
		return text_to_json(value);
	const Json plain = Json::parse(value);
	if (!plain.is_number())
		return plain;
	return plain.is_number_unsigned() ? number_to_json(plain.get<uint64_t>())
					  : number_to_json(plain.get<int64_t>());
}

} // namespace

Json id_to_json(const Identifiers &id)
{
	Json json = Json::object();
	for (const auto &[name, value] : id)
		json[text_to_json(name)] = text_to_json(value);
	return json;
}

Json property_to_json(const Property &property)
{
	Json json;
	json["type"] = property.type->word;
	if (property.scalar) {
		json["value"] = value_to_json(*property.type, property.values.at(0));
		return json;
	}
	json["values"] = Json::array();
	for (const std::string &value : property.values)
		json["values"].push_back(value_to_json(*property.type, value));
	return json;
}

Json object_to_json(const Object &object)
{
	Json json;
	json["id"] = id_to_json(object.id);
	json["props"] = Json::object();
	for (const Property &property : object.props)
		json["props"][text_to_json(property.name)] = property_to_json(property);
	return json;
}

DocumentWriter::DocumentWriter()
{
	fmt::print("{{\"format\":\"{}\",\"version\":{},\"objects\":[", format_name, format_version);
}

void DocumentWriter::add(const Object &object)
{
	std::string text = visible_json(object_to_json(object).dump());
	fmt::print("{}\n{}", first_ ? "" : ",", text);
	first_ = false;
}

void DocumentWriter::finish()
{
	fmt::print("{}]}}\n", first_ ? "" : "\n");
}

// ---- Elements ----

namespace {

std::string text_from_json(const std::string &text, const std::string &path)
{
	if (text.find('\0') == std::string::npos)
		return text;
	std::string bytes;
	bool good = text[0] == '\0' && text.size() > 1 && text.size() % 2 == 1;
	for (size_t i = 1; good && i < text.size(); i += 2) {
		unsigned value = 0;
		auto [end, error] = std::from_chars(&text[i], &text[i] + 2, value, 16);
		good = error == std::errc() && end == &text[i] + 2 && value != 0;
		bytes += static_cast<char>(value);
	}
	if (!good)
		bad_element(path, "a text holds a NUL character, which only begins the hexadecimal form of bytes");
	return bytes;
}

bool is_wide(const ValueType &type)
{
	return type.array == DATA_TYPE_INT64_ARRAY || type.array == DATA_TYPE_UINT64_ARRAY;
}

// Whether a kind of JSON value can stand for a type. Only numbers of 64 bits may be texts.
bool kind_fits(const Json &json, const ValueType &type)
{
	if (type.numeric)
		return json.is_number() || (is_wide(type) && json.is_string());
	return type.quoted ? json.is_string() : json.is_boolean();
}

std::string value_from_json(const Json &json, const ValueType &type, const std::string &path)
{
	if (!kind_fits(json, type))
		bad_element(
		    path, fmt::format("{} where a value of the type {} is needed", json.type_name(), type.word));
	if (json.is_number_float())
		bad_element(
		    path, fmt::format("{} isn't a whole number within the range of {}", json.dump(), type.word));
	try {
		if (type.quoted)
			return type.normalize(text_from_json(json.get_ref<const std::string &>(), path));
		return type.normalize(json.is_string() ? json.get_ref<const std::string &>() : json.dump());
	} catch (Failure &failure) {
		failure.at(path);
		throw;
	}
}

Property property_from_json(const std::string &name, const Json &json, const std::string &path)
{
	require_keys(json, {"type", "values", "value"}, path);
	const Json &word = member(json, "type", path);
	require_kind(word, Json::value_t::string, pointer(path, "type"));
	Property property = {text_from_json(name, path), type_by_word(word.get_ref<const std::string &>()), false, {}};
	if (property.type == nullptr)
		bad_element(
		    pointer(path, "type"), fmt::format("{} isn't a type: types are {}", word.dump(), type_words()));
	if (json.contains("value") && json.contains("values"))
		bad_element(path, "value and values exclude each other");
	if (json.contains("value")) {
		property.scalar = true;
		property.values.push_back(value_from_json(json["value"], *property.type, pointer(path, "value")));
		return property;
	}
	const Json &values = member(json, "values", path);
	std::string values_path = pointer(path, "values");
	require_kind(values, Json::value_t::array, values_path);
	for (size_t i = 0; i < values.size(); i++)
		property.values.push_back(
		    value_from_json(values[i], *property.type, pointer(values_path, std::to_string(i))));
	return property;
}

Object object_from_json(const Json &json, const std::string &path)
{
	require_keys(json, {"id", "props"}, path);
	const Json &id = member(json, "id", path);
	const Json &props = member(json, "props", path);
	std::string id_path = pointer(path, "id"), props_path = pointer(path, "props");
	require_kind(id, Json::value_t::object, id_path);
	require_kind(props, Json::value_t::object, props_path);
	if (id.empty())
		bad_element(id_path, "an object needs at least one identifier");
	Object object;
	for (const auto &[key, value] : id.items()) {
		std::string place = pointer(id_path, key);
		require_kind(value, Json::value_t::string, place);
		object.id.emplace_back(
		    text_from_json(key, place), text_from_json(value.get_ref<const std::string &>(), place));
	}
	for (const auto &[key, value] : props.items())
		object.props.push_back(property_from_json(key, value, pointer(props_path, key)));
	return object;
}

// ---- Reading ----

// Follows the parser's events: so it sees a key that is given twice, of which the parsed form keeps one; refuses a document that
// is nested too deep while reading it; and takes each object out of the parsed form as soon as it is complete, which keeps
// memory small.
class Reader {
public:
	explicit Reader(const std::function<void(const Failure &)> &bad) : bad_(bad) {}

	std::vector<DocumentObject> read(std::istream &in)
	{
		Json rest = Json::parse(
		    in, [this](int, Json::parse_event_t event, Json &parsed) { return follow(event, parsed); });
		require_keys(rest, {"format", "version", "objects"}, "");
		if (member(rest, "format", "") != format_name)
			bad_element("/format", fmt::format("the format isn't \"{}\"", format_name));
		const Json &version = member(rest, "version", "");
		if (version != format_version && version != 1)
			bad_element("/version",
			    fmt::format("this version of the format isn't known; 1 to {} are", format_version));
		require_kind(member(rest, "objects", ""), Json::value_t::array, "/objects");
		return std::move(found_);
	}

private:
	// One level of nesting: an array counts its elements, an object remembers its keys.
	struct Level {
		bool array;
		size_t index = 0;
		std::string key;
		std::vector<std::string> keys;
	};
	static constexpr size_t deepest = 16;

	std::string path() const
	{
		std::string text;
		for (const Level &level : levels_)
			text = pointer(text, level.array ? std::to_string(level.index) : level.key);
		return text;
	}

	void open(bool array)
	{
		if (levels_.size() == deepest)
			bad_element(path(), "nested too deep");
		levels_.push_back({array, 0, "", {}});
	}

	void key(const std::string &name)
	{
		Level &level = levels_.back();
		level.key = name;
		if (std::find(level.keys.begin(), level.keys.end(), name) != level.keys.end())
			twice_ = path();
		level.keys.push_back(name);
	}

	bool in_objects() const
	{
		return levels_.size() == 2 && !levels_[0].array && levels_[0].key == "objects" && levels_[1].array;
	}

	// Takes a complete element of the document's objects. False drops it from the parsed form.
	bool take(const Json &parsed)
	{
		std::string place = path();
		try {
			if (!twice_.empty())
				bad_element(twice_, "the key is given twice");
			found_.push_back({object_from_json(parsed, place), place});
		} catch (const Failure &failure) {
			bad_(failure);
		}
		twice_.clear();
		return false;
	}

	bool value_done(const Json &parsed)
	{
		if (levels_.empty()) {
			if (!twice_.empty())
				bad_element(twice_, "the key is given twice");
			return true;
		}
		bool keep = !in_objects() || take(parsed);
		levels_.back().index++;
		return keep;
	}

	bool follow(Json::parse_event_t event, Json &parsed)
	{
		switch (event) {
		case Json::parse_event_t::object_start:
		case Json::parse_event_t::array_start:
			open(event == Json::parse_event_t::array_start);
			return true;
		case Json::parse_event_t::key:
			key(parsed.get_ref<const std::string &>());
			return true;
		case Json::parse_event_t::object_end:
		case Json::parse_event_t::array_end:
			levels_.pop_back();
			return value_done(parsed);
		default:
			return value_done(parsed);
		}
	}

	const std::function<void(const Failure &)> &bad_;
	std::vector<Level> levels_;
	std::vector<DocumentObject> found_;
	std::string twice_; // where a key came a second time
};

} // namespace

std::vector<DocumentObject> read_document(std::istream &in, const std::function<void(const Failure &)> &bad)
{
	try {
		return Reader(bad).read(in);
	} catch (const Json::exception &error) { // also a number beyond all bounds, which isn't a syntax error
		std::string text = error.what();
		size_t bracket = text.find("] "); // after the parser's own name for the error
		throw Failure(Exit::invalid, bracket == std::string::npos ? text : text.substr(bracket + 2))
		    .next("ostrel(1) describes the document; ostrel export writes one");
	}
}
