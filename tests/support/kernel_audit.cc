// The kernel's audit log, by messages to and from the kernel.
#include "kernel_audit.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/netlink.h>
#include <sstream>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace {

constexpr unsigned short trusted_app = 1121;

void must(bool good, const char *what)
{
	if (good)
		return;
	perror(what);
	abort();
}

Fd audit_socket(unsigned int groups)
{
	Fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_AUDIT));
	sockaddr_nl address = {};
	address.nl_family = AF_NETLINK;
	address.nl_groups = groups;
	if (fd && bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
		return {};
	timeval ten_seconds = {10, 0};
	(void) setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &ten_seconds, sizeof(ten_seconds));
	return fd;
}

struct Message {
	nlmsghdr head;
	char data[9000];
};

// A message of the kernel's, with its type; 0 if none came.
unsigned short receive(int fd, std::string *data)
{
	Message message;
	const ssize_t size = recv(fd, &message, sizeof(message), 0);
	if (size < static_cast<ssize_t>(sizeof(message.head)))
		return 0;
	data->assign(message.data, static_cast<size_t>(size) - sizeof(message.head));
	return message.head.nlmsg_type;
}

// Sends a request and waits until the kernel has answered it; gives its answer, 0 or an errno value.
int ask(unsigned short type, const void *data, size_t size, std::string *reply = nullptr)
{
	Fd fd = audit_socket(0);
	Message message = {};
	message.head.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(size));
	message.head.nlmsg_type = type;
	message.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
	memcpy(message.data, data, size);
	if (!fd || send(fd.get(), &message, message.head.nlmsg_len, 0) < 0)
		return errno;
	int error = -1;
	for (bool replied = reply == nullptr; error == -1 || (error == 0 && !replied);) {
		std::string data_of_reply;
		const unsigned short kind = receive(fd.get(), &data_of_reply);
		if (kind == NLMSG_ERROR)
			error = -*reinterpret_cast<const int *>(data_of_reply.data());
		else if (kind == type && reply != nullptr)
			*reply = data_of_reply;
		else
			return EPROTO;
		replied = replied || kind == type;
	}
	return error;
}

// Whether audit is on, 2 if it can't be switched any more; -1 if there is none.
int is_enabled()
{
	std::string reply;
	audit_status status = {};
	if (ask(AUDIT_GET, "", 0, &reply) != 0)
		return -1;
	memcpy(&status, reply.data(), std::min(reply.size(), sizeof(status)));
	return static_cast<int>(status.enabled);
}

int set_enabled(int enabled)
{
	audit_status status = {};
	status.mask = AUDIT_STATUS_ENABLED;
	status.enabled = static_cast<uint32_t>(enabled);
	return ask(AUDIT_SET, &status, sizeof(status));
}

// A value as it was before it was written down.
std::string decoded(const std::string &value)
{
	if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
		return value.substr(1, value.size() - 2);
	EXPECT_TRUE(
	    !value.empty() && value.size() % 2 == 0 && value.find_first_not_of("0123456789ABCDEF") == std::string::npos)
	    << value;
	std::string text;
	for (size_t i = 0; i + 1 < value.size(); i += 2)
		text += static_cast<char>(stoi(value.substr(i, 2), nullptr, 16));
	return text;
}

// The text of a record, between the quotes of its "msg='...'"; the head in front is the kernel's.
std::string text_of(const std::string &raw, AuditRecord *record)
{
	int head = 0;
	const int words = sscanf(
	    raw.c_str(), "audit(%*[0-9.:]): pid=%d uid=%u auid=%*u ses=%*u%n", &record->pid, &record->uid, &head);
	const size_t start = raw.find(" msg='", static_cast<size_t>(head)) + 6;
	const size_t end = raw.find('\'', start);
	const std::string between = raw.substr(static_cast<size_t>(head), start - 6 - static_cast<size_t>(head));
	const bool good = words == 2 && start > 6 && end != std::string::npos &&
			  raw.find_first_not_of('\n', end + 1) == std::string::npos &&
			  (between.empty() || between.compare(0, 6, " subj=") == 0);
	EXPECT_TRUE(good) << "no record: " << raw;
	return good ? raw.substr(start, end - start) : "";
}

AuditRecord record_of(const std::string &raw)
{
	AuditRecord record = {raw, 0, 0, "", {}};
	std::istringstream words(text_of(raw, &record));
	for (std::string word; std::getline(words, word, ' ');) {
		const size_t equals = word.find('=');
		const std::string name = word.substr(0, equals);
		EXPECT_TRUE(equals != std::string::npos && record.fields.count(name) == 0) << raw;
		if (equals == std::string::npos)
			break;
		const bool untrusted = name == "parent_file" || name == "object_name" || name == "exe";
		record.names += (record.names.empty() ? "" : " ") + name;
		record.fields[name] = untrusted ? decoded(word.substr(equals + 1)) : word.substr(equals + 1);
	}
	return record;
}

} // namespace

const std::string &AuditRecord::operator[](const char *name) const
{
	static const std::string none = "(no such field)";
	const auto found = fields.find(name);
	return found == fields.end() ? none : found->second;
}

const char *KernelAudit::why_not()
{
	if (geteuid() != 0)
		return "audit records are read by root";
	if (dlopen("libaudit.so.1", RTLD_NOW) == nullptr)
		return "this host has no libaudit";
	if (!audit_socket(1U << (AUDIT_NLGRP_READLOG - 1)))
		return "audit records can't be read here";
	const int enabled = is_enabled();
	if (enabled < 0 || set_enabled(enabled) != 0)
		return "audit can't be switched here";
	return nullptr;
}

KernelAudit::KernelAudit() : lock_(open("/run/ostrel-test-audit.lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600))
{
	must(lock_ && flock(lock_.get(), LOCK_EX) == 0, "the lock of the tests of audit");
	reader_ = audit_socket(1U << (AUDIT_NLGRP_READLOG - 1));
	const int room = 64 << 20;
	must(setsockopt(reader_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) == 0, "SO_RCVBUFFORCE");

	// Another process puts audit back as it was, once this one asks for it or has gone.
	const int before = is_enabled();
	int pipe_ends[2];
	must(pipe2(pipe_ends, O_CLOEXEC) == 0, "pipe");
	keeper_ = fork();
	must(keeper_ >= 0, "fork");
	if (keeper_ == 0) {
		char byte;
		(void) setsid();
		(void) close(pipe_ends[1]);
		(void) !read(pipe_ends[0], &byte, 1);
		_exit(set_enabled(before));
	}
	(void) close(pipe_ends[0]);
	keeper_pipe_.reset(pipe_ends[1]);
	must(set_enabled(before == 2 ? 2 : 1) == 0, "audit can't be switched on");
}

KernelAudit::~KernelAudit()
{
	int status = -1;
	EXPECT_EQ(write(keeper_pipe_.get(), "x", 1), 1);
	EXPECT_EQ(waitpid(keeper_, &status, 0), keeper_);
	EXPECT_EQ(status, 0) << "audit isn't as it was";
}

std::vector<AuditRecord> KernelAudit::records(pid_t sender)
{
	std::vector<AuditRecord> found;
	const std::string mark = "op=mark_of_a_test mark=" + std::to_string(getpid()) + "." + std::to_string(++marks_);
	const int refused = ask(trusted_app, mark.c_str(), mark.size() + 1);
	EXPECT_EQ(refused, 0) << strerror(refused);
	for (std::string raw; refused == 0;) {
		const unsigned short type = receive(reader_.get(), &raw);
		EXPECT_NE(type, 0) << "records are missing: " << strerror(errno);
		if (type == 0 || (type == trusted_app && raw.find(mark) != std::string::npos))
			break;
		// Other programs of the machine have records, too.
		if (type != trusted_app || raw.find("op=ostrel_") == std::string::npos)
			continue;
		AuditRecord record = record_of(raw);
		if (record.pid == sender)
			found.push_back(std::move(record));
	}
	return found;
}
