// The kernel's audit log, through the reader that the tests of programs use.
#include "kernel_audit.h"

#include <cstdio>
#include <cstring>
#include <sstream>
#include <sys/socket.h>

#include "test_paths.h"

#define READER TEST_SOURCE_DIR "/tests/support/kernel_audit.py"

namespace {

// The reader, with a socket for its input and output.
Process start_reader(Fd *socket)
{
	int ends[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
		abort();
	socket->reset(ends[0]);
	Fd theirs(ends[1]);
	return Process([&] {
		(void) dup2(theirs.get(), STDIN_FILENO);
		(void) dup2(theirs.get(), STDOUT_FILENO);
		return execlp("python3", "python3", READER, nullptr);
	});
}

std::string text_of(const std::string &digits)
{
	std::string text;
	for (size_t i = 0; i + 1 < digits.size(); i += 2)
		text += static_cast<char>(stoi(digits.substr(i, 2), nullptr, 16));
	return text;
}

AuditRecord record_of(const char *line)
{
	AuditRecord record = {};
	std::istringstream words(line);
	std::string word;
	words >> word;
	record.raw = text_of(word);
	while (words >> word) {
		const size_t equals = word.find('=');
		const std::string name = word.substr(0, equals);
		record.fields[name] = text_of(word.substr(equals + 1));
		record.names += (record.names.empty() ? "" : " ") + name;
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
	static char why[200];
	FILE *reader = popen("python3 " READER " 2>&1 </dev/null", "r");
	if (reader == nullptr || fgets(why, sizeof(why), reader) == nullptr)
		return "the reader of audit records can't be run";
	return pclose(reader) == 0 ? nullptr : why;
}

KernelAudit::KernelAudit() : reader_(start_reader(&socket_)), output_(fdopen(dup(socket_.get()), "r"))
{
	EXPECT_EQ(fgetc(output_.get()), '\n') << "audit can't be switched on";
}

KernelAudit::~KernelAudit()
{
	(void) shutdown(socket_.get(), SHUT_RDWR);
	EXPECT_EQ(reader_.wait(), 0) << "audit isn't as it was";
}

std::vector<AuditRecord> KernelAudit::records(pid_t sender)
{
	std::vector<AuditRecord> found;
	char line[40000] = "";
	EXPECT_EQ(write(socket_.get(), "\n", 1), 1);
	while (fgets(line, sizeof(line), output_.get()) != nullptr && line[0] != '\n') {
		AuditRecord record = record_of(line);
		if (record["pid"] == std::to_string(sender))
			found.push_back(std::move(record));
	}
	EXPECT_STREQ(line, "\n") << "records are missing";
	return found;
}
