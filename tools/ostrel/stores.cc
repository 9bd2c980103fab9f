#include "stores.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "database_kinds.h"

namespace {

struct Store {
	const char *prefix;
	const char *name; // what stands after the prefix
	std::unique_ptr<Database> (*make)(DatabaseName &&name);
	const char *why_not_served; // NULL: a hatch may serve it
};

constexpr Store stores[] = {
    {"file", "PATH", make_file_database, nullptr}, // also without its prefix
    {"raw", "PATH", make_raw_file_database, nullptr},
    {"repo", "LOCATOR", make_repository_database, nullptr},
    {"hatch", "PATH", make_served_database,
	"a hatch can't be served by another one: its server would take all callers for this one"},
};

std::string_view prefix_of(const std::string &name)
{
	const size_t colon = name.find(':');
	return colon == std::string::npos ? std::string_view() : std::string_view(name).substr(0, colon);
}

// NULL if nothing has this prefix, or there is none.
const Store *store_by_prefix(std::string_view prefix)
{
	const auto *found =
	    std::find_if(std::begin(stores), std::end(stores), [&](const Store &row) { return prefix == row.prefix; });
	return found == std::end(stores) ? nullptr : found;
}

// A bare path that begins like this was meant to be something else.
bool looks_like_prefix(std::string_view text)
{
	constexpr std::string_view others = "0123456789+-.";
	auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
	return !text.empty() && is_letter(text[0]) && std::all_of(text.begin(), text.end(), [&](char c) {
		return is_letter(c) || others.find(c) != std::string_view::npos;
	});
}

} // namespace

std::string database_forms()
{
	std::string forms;
	for (const Store &row : stores) {
		const bool is_last = &row == std::end(stores) - 1;
		forms += fmt::format("{}{}:{}", forms.empty() ? "" : is_last ? " or " : ", ", row.prefix, row.name);
	}
	return forms;
}

void require_servable(const std::string &name)
{
	const Store *store = store_by_prefix(prefix_of(name));
	if (store != nullptr && store->why_not_served != nullptr)
		throw Failure(Exit::usage, store->why_not_served).in(name).next("serve the database itself");
}

std::unique_ptr<Database> open_database(const std::string &name, enclaveid_t enclave, bool case_sensitive)
{
	const std::string_view prefix = prefix_of(name);
	const Store *store = store_by_prefix(prefix);
	if (store == nullptr && looks_like_prefix(prefix))
		throw Failure(Exit::usage, fmt::format("'{}:' is no kind of database", prefix))
		    .in(name)
		    .next(fmt::format("write {}; a file of that name is written ./{}", database_forms(), name));
	DatabaseName parts = {name, store == nullptr ? name : name.substr(prefix.size() + 1), enclave, case_sensitive};
	if (parts.name.empty())
		throw Failure(Exit::usage, "a database needs a name")
		    .in(name)
		    .next(fmt::format("write PATH, {}", database_forms()));
	if (parts.name.size() > OSTREL_DB_NAME_MAX)
		throw Failure(Exit::invalid,
		    fmt::format("the name has {} bytes; {} are possible", parts.name.size(), OSTREL_DB_NAME_MAX))
		    .in(parts.name.substr(0, 40) + "...");
	std::unique_ptr<Database> database = (store == nullptr ? stores[0] : *store).make(std::move(parts));
	database->open();
	return database;
}
