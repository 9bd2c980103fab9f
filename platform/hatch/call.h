// What the layers above a call need beyond its error number. All of it belongs to the calling thread.
#ifndef MERIDON_HATCH_CALL_H
#define MERIDON_HATCH_CALL_H

#include <string_view>

namespace hatch {

// Whether the server may carry out the last call that failed here all the same: its request was sent whole, and not refused.
bool fate_is_open();

// While it lives: if a call's reply doesn't come in time, this request is sent after it over the same connection. The server
// serves it right after the call, however late that is. Nobody waits for its reply.
class FollowUp {
public:
	explicit FollowUp(std::string_view request);
	~FollowUp();
	FollowUp(const FollowUp &) = delete;
	FollowUp &operator=(const FollowUp &) = delete;

	bool was_sent() const { return sent_; }
	// Sends it over a connection that is given up, unless the server doesn't even take the bytes.
	void send(int socket);

private:
	std::string_view request_;
	bool sent_ = false;
};

} // namespace hatch

#endif
