#include "lying_daemon.h"

#include <fstream>
#include <unistd.h>

#include <meridon/hatch.h>

#include "rpy/wire.h"

namespace {

void put(std::string *to, uint32_t number)
{
	to->append(reinterpret_cast<const char *>(&number), sizeof(number));
}

void put_head(std::string *reply)
{
	put(reply, rpy::magic);
	put(reply, RPY_ERROR_NONE);
}

// A group with one text for a property, if `text` isn't empty.
void put_group(std::string *reply, uint64_t id, std::string_view name, std::string_view text = {})
{
	reply->append(reinterpret_cast<const char *>(&id), sizeof(id));
	for (uint32_t number : {3U, 0U, 0U, static_cast<uint32_t>(name.size())})
		put(reply, number);
	*reply += name;
	put(reply, 1);
	*reply += "t";
	if (text.empty()) {
		put(reply, 4);
		put(reply, 0);
		return;
	}
	const auto size = static_cast<uint32_t>(text.size());
	put(reply, size + 25);
	put(reply, 1);
	put(reply, 1);
	*reply += "p";
	for (uint32_t number : {uint32_t{RPY_TYPE_ASTRING}, 1U, size + 4, size})
		put(reply, number);
	*reply += text;
}

// The group of the name that was asked for.
std::string group_reply(rpy::Reader in)
{
	(void) in.bytes(12); // the parent
	std::string reply;
	put_head(&reply);
	put_group(&reply, 9, in.text());
	return reply;
}

// More always follows, but where there is a text.
std::string page_reply(rpy::Reader in, uint32_t count, std::string_view text = {})
{
	(void) in.bytes(16); // the parent, the filter
	(void) in.text();
	uint64_t id = in.u64();
	std::string reply;
	put_head(&reply);
	put(&reply, text.empty() ? 1 : 0);
	put(&reply, count);
	for (uint32_t i = 0; i < count; i++)
		put_group(&reply, ++id, "g", text);
	return reply;
}

std::string shared_reply(Lie lie, rpy::Reader in)
{
	std::string reply;
	put(&reply, rpy::magic);
	put(&reply, lie == Lie::bad_error ? 4000000000 : uint32_t{RPY_ERROR_NONE});
	for (int i = 0; in.left() > 0 && lie != Lie::no_replies; i++) {
		rpy::Reader request(in.text());
		(void) request.bytes(8);
		std::string one = group_reply(request);
		if (lie == Lie::garbage && i == 1)
			one.assign(one.size(), '\xff');
		put(&reply, lie == Lie::too_long_a_reply && i == 1 ? 4000000000 : static_cast<uint32_t>(one.size()));
		reply += one;
	}
	return reply;
}

std::string lying_reply(Lie lie, rpy::Reader in)
{
	(void) in.u32();
	switch (static_cast<rpy::Op>(in.u32())) {
	case rpy::Op::read_batch:
		return shared_reply(lie, in);
	case rpy::Op::get_group:
		usleep(lie == Lie::slow ? 300'000 : 500); // others come meanwhile
		return group_reply(in);
	case rpy::Op::list_groups:
		if (lie == Lie::much)
			return page_reply(in, 5, std::string(6'000'000, 'x'));
		return page_reply(in, lie == Lie::empty_pages ? 0 : rpy::page_least);
	case rpy::Op::commit: {
		std::string reply;
		put_head(&reply);
		put(&reply, lie == Lie::stale ? 0 : 1);
		return reply;
	}
	case rpy::Op::read_group: {
		std::string reply;
		put_head(&reply);
		put_group(&reply, in.u64(), "g");
		return reply;
	}
	default: { // the service and the instance
		std::string reply;
		put_head(&reply);
		for (uint32_t number : {2U, 0U, 3U, 0U})
			put(&reply, number);
		return reply;
	}
	}
}

void answer(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	char small[16384];
	char *copy = small;
	size_t length;
	{
		const std::string reply = lying_reply(static_cast<LyingDaemon *>(cookie)->lie, {arg, size});
		length = reply.size();
		if (length > sizeof(small))
			copy = static_cast<char *>(hatch_reply_memory(length));
		(void) reply.copy(copy, length);
	}
	(void) hatch_return(copy, length, nullptr, 0);
}

} // namespace

LyingDaemon::~LyingDaemon()
{
	if (hatch_ != -1)
		(void) hatch_revoke(hatch_);
}

bool LyingDaemon::serve(const std::string &path)
{
	std::ofstream(path).flush();
	hatch_ = hatch_create(answer, this, HATCH_REFUSE_DESC);
	return hatch_ != -1 && fattach(hatch_, path.c_str()) == 0;
}
