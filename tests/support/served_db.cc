// Served databases of tests.
#include "served_db.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <sys/stat.h>

#include "test_paths.h"

namespace {

constexpr const char *commands[] = {"read", "write", "rename", "remove", "may_read", "may_write"};

std::string list_bytes(const std::string &kind, std::string value)
{
	const char damage = value.empty() ? ' ' : value[0];
	if (strchr(".!-+0", damage) != nullptr)
		value.erase(0, 1);
	if (damage == '.')
		return value;
	const size_t comma = value.find(','), number = value.find("=#");
	std::string bytes;
	if (kind == "object" || kind == "objects") {
		AttrList object = object_of(value.substr(0, comma), comma == value.npos ? "" : value.substr(comma + 1)),
			 list;
		attrlist_t *only = object.get();
		must(ostrel_object_list_create(&only, value.empty() ? 0 : 1, list.out()) == OSTREL_SUCCESS, "objects");
		bytes = packed(kind == "object" ? object.get() : list.get());
	} else {
		AttrList list = kind == "props" ? props_of(value) : idl_of(value);
		if (number != value.npos) // of the first name
			must(attrlist_add_int64(list.get(), value.substr(0, number).c_str(),
				 std::stoll(value.substr(number + 2))) == 0,
			    "number");
		bytes = packed(list.get());
	}
	if (damage == '!')
		bytes[0] ^= 1;
	return damage == '-'   ? bytes.substr(0, bytes.size() - 1)
	       : damage == '+' ? bytes + "x"
	       : damage == '0' ? std::string(100, '\0')
			       : bytes;
}

std::string objects_of(const char *bytes, size_t size)
{
	AttrList list;
	Objects objs;
	if (attrlist_unpack(bytes, size, list.out(), 0) != 0 ||
	    ostrel_object_list_get_objects(list.get(), objs.out(), objs.out_count()) != OSTREL_SUCCESS)
		return "no list of objects";
	std::string text;
	for (unsigned int i = 0; i < objs.count(); i++) {
		attrlist_t *ids;
		attrlist_t *props = nullptr;
		(void) ostrel_object_look(objs[i], &ids, &props);
		text += text_of(ids) + "|" + text_of(props) + " ";
	}
	return text;
}

} // namespace

Database open_database(const std::string &name, ostrel_db_cmds_t cmds, uint64_t flags)
{
	ostrel_db_t db = nullptr;
	must(ostrel_db_open(name.c_str(), 0, cmds, flags, &db) == OSTREL_SUCCESS, name.c_str());
	return Database(db);
}

ServedFile::ServedFile()
{
	must(chmod(scratch.directory().c_str(), 0755) == 0, "chmod");
}

std::string ServedFile::write_rights(const std::string &text) const
{
	for (const char *directory : {"etc", "etc/meridon"})
		must(mkdir(scratch.path(directory).c_str(), 0755) == 0 || errno == EEXIST, directory);
	must(setenv("MERIDON_ROOT", scratch.directory().c_str(), 1) == 0, "setenv");
	std::string rights = scratch.write("etc/meridon/rights", text);
	must(chmod(rights.c_str(), 0644) == 0, "chmod");
	return rights;
}

LocalServer::LocalServer(const ServedFile &file, const char *read_auth, const char *write_auth, ostrel_db_cmds_t cmds)
    : hatch_path_(file.hatch), db_(open_database(file.path, cmds))
{
	must(
	    ostrel_hatchserver_create(hatch_path_.c_str(), read_auth, write_auth, db_.get(), &hatch_) == OSTREL_SUCCESS,
	    "ostrel_hatchserver_create");
}

void LocalServer::stop()
{
	if (db_)
		ostrel_hatchserver_destroy(hatch_path_.c_str(), hatch_);
	db_.reset();
}

Process serve_file(const ServedFile &file, const char *read_auth, const char *write_auth, ostrel_db_cmds_t cmds)
{
	return keep_in_process([&] { return LocalServer(file, read_auth, write_auth, cmds); });
}

std::string packed(attrlist_t *list)
{
	Heap<char> bytes;
	size_t size = 0;
	must(attrlist_pack(list, bytes.out(), &size, ATL_ENCODE_XDR, 0) == 0, "attrlist_pack");
	return {bytes.get(), size};
}

std::string block_of(const std::string &text)
{
	std::istringstream words(text);
	std::string word, lists[2];
	std::vector<std::pair<std::string, std::string>> changes;
	words >> word;
	const auto *name = std::find(std::begin(commands), std::end(commands), word);
	const uint64_t cmd =
	    name != std::end(commands) ? OSTREL_HATCH_CMD_READ_REQ + (name - commands) : std::stoul(word);
	while (words >> word) {
		const std::string key = word.substr(0, word.find('=')), value = word.substr(key.size() + 1);
		if (key.ends_with("ids") || key.starts_with("object") || key == "props")
			lists[key == "ids" ? 0 : 1] = list_bytes(key, value);
		else
			changes.emplace_back(key, value);
	}
	ostrel_hatch_arg_t head = {};
	head.nda_cmd = static_cast<ostrel_hatch_cmd_t>(cmd);
	head.nda_idlen = lists[0].size();
	head.nda_datalen = lists[1].size();
	head.nda_flags = OSTREL_FLAG_WITH_PROPS;
	uint64_t enclave = 0, result = 0, cut = UINT64_MAX;
	const std::map<std::string, uint64_t *> fields = {{"idlen", &head.nda_idlen}, {"datalen", &head.nda_datalen},
	    {"flags", &head.nda_flags}, {"enclave", &enclave}, {"result", &result}, {"cut", &cut}};
	for (const auto &[key, value] : changes) {
		uint64_t *field = fields.at(key);
		*field = (strchr("+-", value[0]) != nullptr ? *field : 0) +
			 (value == "max" ? UINT64_MAX : strtoull(value.c_str(), nullptr, 0));
	}
	head.nda_enclaveid = static_cast<enclaveid_t>(enclave);
	head.nda_result = static_cast<ostrel_error_t>(result);
	return (std::string(reinterpret_cast<const char *>(&head), sizeof head) + lists[0] + lists[1]).substr(0, cut);
}

std::vector<std::pair<std::string, std::string>> golden_pairs(const std::string &name)
{
	std::istringstream file(file_text(TEST_SOURCE_DIR "/tests/golden/" + name));
	std::vector<std::pair<std::string, std::string>> rows;
	for (std::string line; std::getline(file, line);) {
		const size_t tab = line.find('\t');
		if (tab != line.npos && line[0] != '#')
			rows.emplace_back(line.substr(0, tab), line.substr(tab + 1));
	}
	must(!rows.empty(), name.c_str());
	return rows;
}

std::string Reply::text() const
{
	if (error != 0)
		return strerror(error);
	const auto cmd = static_cast<size_t>(head.nda_cmd - OSTREL_HATCH_CMD_READ_REQ);
	const std::string name = cmd < std::size(commands) ? commands[cmd] : std::to_string(head.nda_cmd);
	ostrel_hatch_arg_t alone = {};
	alone.nda_cmd = head.nda_cmd;
	alone.nda_flags = head.nda_flags;
	alone.nda_result = head.nda_result;
	const bool has_list = size != sizeof head || memcmp(&head, &alone, sizeof head) != 0;
	return name + " " + std::to_string(head.nda_flags) + " " + ostrel_strerror(head.nda_result) +
	       (has_list ? " with " + objects.substr(0, objects.find_last_not_of(' ') + 1) : "");
}

Reply ask(int hatch, const std::string &block)
{
	Answer answer = call(hatch, block_of(block));
	Reply reply = {answer.error, {}, answer.data.size(), ""};
	if (answer.data.size() < sizeof reply.head)
		return reply;
	memcpy(&reply.head, answer.data.data(), sizeof reply.head);
	if (reply.size > sizeof reply.head)
		reply.objects = objects_of(answer.data.data() + sizeof reply.head, reply.size - sizeof reply.head);
	return reply;
}
