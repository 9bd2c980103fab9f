// netimport: keeps a database in step with this machine's network configuration, as a configuration daemon would.
//
// usage: netimport DB [DIRECTORY]
//
// It asks ip(8) for links, addresses and routes, reads /etc/resolv.conf, and makes one object of each. What is new or
// has changed is written, what has gone is removed, and everything else in the database is left alone. With DIRECTORY
// it takes link.json, address.json, route.json, route6.json and resolv.conf from there.
//
// Exit codes: 0 done, 1 failed, 2 usage.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <libostrel.h>
#include <nlohmann/json.hpp>

using Json = nlohmann::json;

namespace {

[[noreturn]] void fail(const std::string &what)
{
	throw std::runtime_error(what);
}

void check(ostrel_error_t result, const std::string &what)
{
	if (result != OSTREL_SUCCESS)
		fail(what + ": " + ostrel_strerror(result));
}

// The calls on lists return errno values.
void check_list(int error)
{
	if (error != 0)
		fail(std::string("a list can't be made: ") + std::strerror(error));
}

struct FreeList {
	void operator()(attrlist_t *list) const { attrlist_free(list); }
};
using List = std::unique_ptr<attrlist_t, FreeList>;

struct CloseDatabase {
	void operator()(ostrel_db_t db) const { ostrel_db_close(db); }
};
using Database = std::unique_ptr<ostrel_db, CloseDatabase>;

// ---- Objects ----

using Names = std::vector<std::pair<std::string, std::string>>;

struct Object {
	List id;
	List props;
};

Object make_object(const Names &names)
{
	attrlist_t *id = nullptr, *props = nullptr;
	check(ostrel_idlist_init(&id, nullptr), "an identifier list");
	Object object = {List(id), nullptr};
	for (const auto &[name, value] : names)
		check(ostrel_idlist_add(id, name.c_str(), value.c_str()), name);
	check_list(attrlist_alloc(&props, ATL_UNIQUE_NAME, 0));
	object.props.reset(props);
	return object;
}

void add_strings(Object &object, const char *name, const std::vector<std::string> &values)
{
	std::vector<char *> array;
	for (const std::string &value : values)
		array.push_back(const_cast<char *>(value.c_str())); // the call only reads
	check_list(
	    attrlist_add_string_array(object.props.get(), name, array.data(), static_cast<uint_t>(array.size())));
}

// Members of the JSON that ip(8) prints; what isn't there makes no property.
void add_text(Object &object, const char *name, const Json &json, const char *member)
{
	if (auto found = json.find(member); found != json.end() && found->is_string())
		check_list(ostrel_atl_add_one_string(object.props.get(), name, found->get<std::string>().c_str()));
}

void add_number(Object &object, const char *name, const Json &json, const char *member)
{
	if (auto found = json.find(member); found != json.end() && found->is_number_unsigned())
		check_list(ostrel_atl_add_one_uint32(object.props.get(), name, found->get<uint32_t>()));
}

std::string text(const Json &json, const char *member)
{
	auto found = json.find(member);
	return found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

// The text form of the identifiers, which names an object among all that this program makes.
std::string name_of(attrlist_t *id)
{
	char buffer[OSTREL_IDSTR_SIZE];
	check(ostrel_idlist2idstr(id, buffer), "identifiers that are too long");
	return buffer;
}

// Equal lists have equal packed forms.
bool same(attrlist_t *a, attrlist_t *b)
{
	std::string packed[2];
	attrlist_t *lists[2] = {a, b};
	for (int i = 0; i < 2; i++) {
		char *buffer = nullptr;
		size_t length = 0;
		check_list(attrlist_pack(lists[i], &buffer, &length, ATL_ENCODE_XDR, 0));
		packed[i].assign(buffer, length);
		free(buffer);
	}
	return packed[0] == packed[1];
}

// ---- The machine ----

using Objects = std::map<std::string, Object>;

void keep(Objects &objects, Object &&object)
{
	std::string name = name_of(object.id.get());
	objects.insert_or_assign(name, std::move(object));
}

void take_links(Objects &objects, const Json &links)
{
	for (const Json &link : links) {
		Object object = make_object({{"class", "link"}, {"name", text(link, "ifname")}});
		add_number(object, "index", link, "ifindex");
		add_number(object, "mtu", link, "mtu");
		add_text(object, "type", link, "link_type");
		add_text(object, "address", link, "address");
		std::vector<std::string> flags = link.value("flags", std::vector<std::string>());
		bool up = std::find(flags.begin(), flags.end(), "UP") != flags.end();
		check_list(ostrel_atl_add_one_boolean(object.props.get(), "up", up ? B_TRUE : B_FALSE));
		add_strings(object, "flags", flags);
		keep(objects, std::move(object));
	}
}

void take_addresses(Objects &objects, const Json &links)
{
	for (const Json &link : links) {
		for (const Json &address : link.value("addr_info", Json::array())) {
			std::string prefix =
			    text(address, "local") + "/" + std::to_string(address.value("prefixlen", 0));
			Object object =
			    make_object({{"class", "address"}, {"link", text(link, "ifname")}, {"address", prefix}});
			add_text(object, "family", address, "family");
			add_text(object, "scope", address, "scope");
			add_text(object, "broadcast", address, "broadcast");
			keep(objects, std::move(object));
		}
	}
}

void take_routes(Objects &objects, const Json &routes, const char *family)
{
	for (const Json &route : routes) {
		Names names = {{"class", "route"}, {"family", family}, {"to", text(route, "dst")},
		    {"link", text(route, "dev")}, {"metric", std::to_string(route.value("metric", 0U))}};
		if (std::string via = text(route, "gateway"); !via.empty())
			names.emplace_back("via", via);
		Object object = make_object(names);
		add_text(object, "type", route, "type");
		add_text(object, "protocol", route, "protocol");
		add_text(object, "scope", route, "scope");
		add_text(object, "source", route, "prefsrc");
		keep(objects, std::move(object));
	}
}

// Words behind a keyword: `nameserver` once a line, the others with all their words.
void take_resolver(Objects &objects, std::istream &file)
{
	std::map<std::string, std::vector<std::string>> words;
	for (std::string line; std::getline(file, line);) {
		std::istringstream in(line.substr(0, line.find_first_of("#;")));
		std::string keyword;
		if (in >> keyword)
			for (std::string word; in >> word;)
				words[keyword].push_back(word);
	}
	Object object = make_object({{"class", "resolver"}, {"name", "system"}});
	for (const char *keyword : {"nameserver", "search", "options"})
		add_strings(object, keyword, words[keyword]);
	keep(objects, std::move(object));
}

std::string run(const std::string &command)
{
	FILE *pipe = popen(command.c_str(), "r");
	if (pipe == nullptr)
		fail(command + ": " + std::strerror(errno));
	std::string output;
	char buffer[4096];
	for (size_t count; (count = fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
		output.append(buffer, count);
	if (int status = pclose(pipe); status != 0)
		fail(command + ": it ended with status " + std::to_string(status));
	return output;
}

Json ask(const std::string &directory, const char *file, const char *arguments)
{
	std::string output;
	if (directory.empty()) {
		output = run(std::string("ip -j ") + arguments);
	} else {
		std::ifstream in(directory + "/" + file);
		if (!in)
			fail(directory + "/" + file + " can't be read");
		output.assign(std::istreambuf_iterator<char>(in), {});
	}
	// Where there is nothing to tell, ip(8) may print nothing at all.
	return output.find_first_not_of(" \n") == std::string::npos ? Json::array() : Json::parse(output);
}

Objects read_machine(const std::string &directory)
{
	Objects objects;
	take_links(objects, ask(directory, "link.json", "link"));
	take_addresses(objects, ask(directory, "address.json", "address"));
	take_routes(objects, ask(directory, "route.json", "route"), "inet");
	take_routes(objects, ask(directory, "route6.json", "-6 route"), "inet6");
	std::ifstream resolver((directory.empty() ? "/etc" : directory) + "/resolv.conf");
	if (resolver)
		take_resolver(objects, resolver);
	return objects;
}

// ---- The database ----

// Copies what a walk shows: the lists themselves go when the callback returns.
int copy_object(ostrel_db_t, attrlist_t *id, attrlist_t *props, uint64_t, void *arg)
{
	auto *objects = static_cast<Objects *>(arg);
	attrlist_t *copies[2] = {nullptr, nullptr};
	if (attrlist_dup(id, &copies[0], 0) != 0)
		return ENOMEM;
	Object object = {List(copies[0]), nullptr};
	if (attrlist_dup(props, &copies[1], 0) != 0)
		return ENOMEM;
	object.props.reset(copies[1]);
	try {
		keep(*objects, std::move(object));
		return 0;
	} catch (const std::exception &) { // nothing is thrown through the library
		return EINVAL;
	}
}

Objects read_class(ostrel_db_t db, const char *name)
{
	Objects objects;
	Object search = make_object({{"class", name}});
	ostrel_error_t result = ostrel_db_walk(db, search.id.get(), 0, copy_object, nullptr, &objects, nullptr);
	if (result != OSTREL_NOT_FOUND) // no file yet: the first write makes it
		check(result, "the database can't be read");
	return objects;
}

void update(ostrel_db_t db, const Objects &machine)
{
	Objects stored;
	for (const char *name : {"link", "address", "route", "resolver"})
		stored.merge(read_class(db, name));
	size_t written = 0, removed = 0;
	for (const auto &[name, object] : machine) {
		auto before = stored.find(name);
		if (before != stored.end() && same(before->second.props.get(), object.props.get()))
			continue;
		check(ostrel_db_write(db, object.id.get(), 0, object.props.get()), name);
		written++;
	}
	for (const auto &[name, object] : stored) {
		if (machine.contains(name))
			continue;
		check(ostrel_db_remove(db, object.id.get(), 0), name);
		removed++;
	}
	std::cout << machine.size() << " objects of this machine: " << written << " written, "
		  << machine.size() - written << " as they were, " << removed << " removed\n";
}

} // namespace

int main(int argc, char **argv)
{
	if (argc < 2 || argc > 3) {
		std::cerr << "usage: netimport DB [DIRECTORY]\n";
		return 2;
	}
	try {
		ostrel_db_t db = nullptr;
		check(ostrel_db_open(argv[1], 0, ostrel_files_db_cmds, OSTREL_DB_CASE_SENSITIVE, &db), argv[1]);
		Database owned(db);
		update(db, read_machine(argc == 3 ? argv[2] : ""));
		return 0;
	} catch (const std::exception &error) {
		std::cerr << "netimport: " << error.what() << "\n";
		return 1;
	}
}
