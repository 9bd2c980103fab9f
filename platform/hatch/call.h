// What the layers above a call need to know beyond its error number. All of it is the calling thread's own.
#ifndef MERIDON_HATCH_CALL_H
#define MERIDON_HATCH_CALL_H

#include <string_view>

namespace hatch {

// Whether the last call that failed here may be carried out all the same: its request was sent whole, and not refused.
bool fate_is_open();

// While it lives: a request that follows one whose reply doesn't come in time, over the same connection, so that the server
// serves it right after that one, however late. Nobody waits for its reply.
class FollowUp {
public:
	explicit FollowUp(std::string_view request);
	~FollowUp();
	FollowUp(const FollowUp &) = delete;
	FollowUp &operator=(const FollowUp &) = delete;

	bool was_sent() const { return sent_; }
	// Sends it over a connection that is given up. A server that doesn't even take the bytes doesn't get it.
	void send(int socket);

private:
	std::string_view request_;
	bool sent_ = false;
};

} // namespace hatch

#endif
