// JSON as all tools print it.
#include "json.h"

#include <charconv>

#include <fmt/format.h>

#include "visible.h"

namespace {

constexpr int64_t exact_max = int64_t{1} << 53; // floating point holds every whole number up to here

} // namespace

std::string text_to_json(std::string_view text)
{
	if (is_utf8(text))
		return std::string(text);
	std::string hex(1, '\0');
	for (char byte : text)
		hex += fmt::format("{:02x}", static_cast<unsigned char>(byte));
	return hex;
}

Json number_to_json(uint64_t number)
{
	return number <= static_cast<uint64_t>(exact_max) ? Json(number) : Json(std::to_string(number));
}

Json number_to_json(int64_t number)
{
	return number >= -exact_max && number <= exact_max ? Json(number) : Json(std::to_string(number));
}

template <typename Number>
std::optional<Number> number_from_json(const Json &json)
{
	if (!json.is_string() && !json.is_number_integer())
		return std::nullopt;
	const std::string digits = json.is_string() ? json.get<std::string>() : json.dump();
	Number number = 0;
	auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
	if (error != std::errc() || end != digits.data() + digits.size())
		return std::nullopt;
	return number;
}
template std::optional<uint64_t> number_from_json(const Json &json);
template std::optional<int64_t> number_from_json(const Json &json);

void write_json(const Json &json, FILE *stream)
{
	fmt::print(stream, "{}\n", visible_json(json.dump()));
}

void write_document(const Json &json)
{
	fmt::print("{}\n", visible_json(json.dump(1, '\t')));
}

Json update_answer(const char *done, bool dry_run)
{
	return {{"result", done}, {"dry_run", dry_run}};
}

std::string parse_error_text(const Json::exception &error)
{
	const std::string text = error.what();
	const size_t bracket = text.find("] ");
	return bracket == std::string::npos ? text : text.substr(bracket + 2);
}
