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

// A value as it was before it was written down, in quotes or in digits.
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
		AuditRecord record = record_of(decoded(std::string(line, strcspn(line, "\n"))));
		if (record.pid == sender)
			found.push_back(std::move(record));
	}
	EXPECT_STREQ(line, "\n") << "records are missing";
	return found;
}
