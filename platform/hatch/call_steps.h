// The steps of a client's call, for a call that waits for its reply and for one that doesn't.
#ifndef MERIDON_HATCH_CALL_STEPS_H
#define MERIDON_HATCH_CALL_STEPS_H

#include <cstddef>
#include <cstdint>

#include <meridon/hatch.h>

#include "base/clock.h"
#include "hatch/connect.h"
#include "hatch/connections.h"
#include "hatch/wire.h"

namespace hatch {

// The end of a call, whatever the server does meanwhile: sending a byte now and then doesn't prolong it. A process that was
// stopped beyond it gets one more second, once: the server may have been stopped as well.
class CallEnd {
public:
	explicit CallEnd(int seconds) : end_(seconds > 0 ? Deadline::in(seconds * second_ns) : Deadline::never()) {}
	// Over: receiving takes what has arrived.
	static CallEnd now() { return CallEnd(Deadline::over()); }

	// Seconds that the next step may wait, rounded up, or `without_end`. False if the time is over.
	bool left(int *seconds)
	{
		*seconds = without_end;
		if (end_.is_never())
			return true;
		*seconds = end_.left_seconds();
		if (*seconds == 0 && !late_) {
			late_ = true;
			end_ = Deadline::in(second_ns);
			*seconds = 1;
		}
		return *seconds > 0;
	}

private:
	explicit CallEnd(Deadline over) : end_(over), late_(true) {}

	Deadline end_;
	bool late_ = false;
};

// What a call sends: its channel, and of `arg` the data.
struct Request {
	uint32_t channel;
	const hatch_arg_t &arg;
};

// The first message of a reply.
struct FirstMessage {
	ReplyHead head;
	size_t size;      // payload bytes in this message
	size_t in_buffer; // how many of them are in the caller's buffer; the others are in the connection's spill
};

// A connection that fails has lost its server. Errors that the caller can do something about stay what they are.
int connection_error(int error);

// Sends the first message of a request over a kept connection, or a new one, which it gives; *sent are its payload bytes.
// Errors: 0, or an errno value.
int begin_call(
    int fd, const Attachment &attachment, const Request &request, CallEnd &end, Connection **out, size_t *sent);
// Sends the first message over this connection. Errors: 0, or the errno value of the socket.
int send_first(Connection *connection, const Request &request, CallEnd &end, size_t *sent);
// Sends what is left. Errors: 0, or an errno value; the server's refusal if it has sent one.
int send_rest(Connection *connection, const hatch_arg_t &arg, CallEnd &end, size_t sent);

// Receives one message. Errors: 0, or an errno value; ETIMEDOUT if none came.
int receive(Connection *connection, CallEnd &end, iovec *parts, size_t count, Message *message);
// Receives the first message of a reply, into the caller's buffer as far as that goes. Errors: as receive(), EPROTO.
int receive_first(Connection *connection, const hatch_arg_t &arg, CallEnd &end, FirstMessage *first);
// Begins a reply that isn't whole, or that the caller has no room for, in a fresh mapping. False: no memory.
bool begin_gathering(Connection *connection, const hatch_arg_t &arg, const FirstMessage &first, Mapping *reply);

} // namespace hatch

#endif
