#include "lying_daemon.h"

#include <fstream>
#include <unistd.h>

#include <meridon/hatch.h>

#include "rpy/wire.h"

namespace {

using rpy::Reader;
using rpy::Writer;

void put_head(Writer *reply, uint32_t error = RPY_ERROR_NONE)
{
	reply->u32(rpy::magic);
	reply->u32(error);
}

// A group with one text for a property, if `text` isn't empty.
void put_group(Writer *reply, uint64_t id, std::string_view name, std::string_view text = {})
{
	Writer values, properties;
	values.text(text);
	properties.u32(text.empty() ? 0 : 1);
	if (!text.empty())
		rpy::put_property(&properties, {"p", RPY_TYPE_ASTRING, 1, values.view()});
	rpy::put_group(reply, {id, 3, 0, name, "t", properties.view()});
}

// The group of the name that was asked for.
void put_named_group(Writer *reply, Reader in)
{
	(void) in.bytes(12); // the parent
	put_head(reply);
	put_group(reply, 9, in.text());
}

// More always follows, except if there is a text.
void put_page(Writer *reply, Reader in, uint32_t count, std::string_view text = {})
{
	(void) in.bytes(16); // the parent, the filter
	(void) in.text();
	uint64_t id = in.u64();
	put_head(reply);
	reply->u32(text.empty() ? 1 : 0);
	reply->u32(count);
	for (uint32_t i = 0; i < count; i++)
		put_group(reply, ++id, "g", text);
}

void put_batch(Writer *reply, Lie lie, Reader in)
{
	put_head(reply, lie == Lie::bad_error ? 4000000000 : uint32_t{RPY_ERROR_NONE});
	for (int i = 0; in.left() > 0 && lie != Lie::no_replies; i++) {
		Reader request(in.text());
		(void) request.bytes(8);
		Writer one;
		put_named_group(&one, request);
		if (lie == Lie::garbage && i == 1)
			memset(one.data(), 0xff, one.size());
		reply->u32(lie == Lie::too_long_a_reply && i == 1 ? 4000000000 : static_cast<uint32_t>(one.size()));
		reply->bytes(one.view());
	}
}

void put_reply(Writer *reply, Lie lie, Reader in)
{
	(void) in.u32();
	switch (static_cast<rpy::Op>(in.u32())) {
	case rpy::Op::read_batch:
		put_batch(reply, lie, in);
		break;
	case rpy::Op::get_group:
		usleep(lie == Lie::slow ? 300'000 : 500); // others come meanwhile
		put_named_group(reply, in);
		break;
	case rpy::Op::list_groups:
		if (lie == Lie::much)
			put_page(reply, in, 5, std::string(6'000'000, 'x'));
		else
			put_page(reply, in, lie == Lie::empty_pages ? 0 : rpy::page_least);
		break;
	case rpy::Op::commit:
		put_head(reply);
		reply->u32(lie == Lie::stale ? 0 : 1);
		break;
	case rpy::Op::read_group:
		put_head(reply);
		put_group(reply, in.u64(), "g");
		break;
	case rpy::Op::batch: // which an older daemon doesn't know
		put_head(reply, RPY_ERROR_INVALID_ARGUMENT);
		break;
	default: // the service and the instance
		put_head(reply);
		reply->u64(2);
		reply->u64(3);
	}
}

void answer(void *cookie, char *arg, size_t size, hatch_desc_t *, unsigned int)
{
	char small[16384];
	char *copy = small;
	size_t length;
	{
		Writer reply;
		put_reply(&reply, static_cast<LyingDaemon *>(cookie)->lie, {arg, size});
		length = reply.size();
		if (length > sizeof(small))
			copy = static_cast<char *>(hatch_reply_memory(length));
		memcpy(copy, reply.data(), length);
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
