#include "element.h"

#include <algorithm>

#include <fmt/format.h>

#include "shared/failure.h"

std::string pointer(const std::string &path, const std::string &key)
{
	std::string token;
	for (char byte : key) {
		if (byte == '~' || byte == '/')
			token += byte == '~' ? "~0" : "~1";
		else
			token += byte;
	}
	return path + "/" + token;
}

void bad_element(const std::string &path, const std::string &message)
{
	throw Failure(Exit::invalid, message).at(path);
}

void require_kind(const Json &json, Json::value_t kind, const std::string &path)
{
	if (json.type() != kind)
		bad_element(path, fmt::format("{} where {} is needed", json.type_name(), Json(kind).type_name()));
}

void require_keys(const Json &json, std::initializer_list<const char *> known, const std::string &path)
{
	require_kind(json, Json::value_t::object, path);
	for (const auto &[key, value] : json.items())
		if (std::find(known.begin(), known.end(), key) == known.end())
			bad_element(pointer(path, key), "a key that this version doesn't know");
}

const Json &member(const Json &json, const char *key, const std::string &path)
{
	auto found = json.find(key);
	if (found == json.end())
		bad_element(path, fmt::format("the key {} is missing", key));
	return *found;
}
