// Served databases of tests.
#include "served_db.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

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

Block::Block(ostrel_hatch_cmd_t cmd, const std::string &ids, const std::string &data) : lists(ids + data)
{
	head.nda_cmd = cmd;
	head.nda_idlen = ids.size();
	head.nda_datalen = data.size();
	head.nda_flags = OSTREL_FLAG_WITH_PROPS;
}

std::string Block::bytes() const
{
	return std::string(reinterpret_cast<const char *>(&head), sizeof head) + lists;
}

Reply ask(int hatch, const std::string &request)
{
	Answer answer = call(hatch, request);
	Reply reply = {answer.error, {}, answer.data.size(), ""};
	if (answer.data.size() < sizeof reply.head)
		return reply;
	memcpy(&reply.head, answer.data.data(), sizeof reply.head);
	if (reply.size > sizeof reply.head)
		reply.objects = objects_of(answer.data.data() + sizeof reply.head, reply.size - sizeof reply.head);
	return reply;
}
