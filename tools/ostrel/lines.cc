#include "lines.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "database.h"
#include "enclave_child.h"
#include "libostrel_blocks.h"
#include "libostrel_lines.h"

namespace {

struct CloseFile {
	void operator()(FILE *stream) const { (void) fclose(stream); } // it was only read
};
using Stream = std::unique_ptr<FILE, CloseFile>;

int copy_bytes(int from, int to)
{
	char buffer[65536];
	for (;;) {
		ssize_t count = read(from, buffer, sizeof(buffer));
		if (count == 0)
			return lseek(to, 0, SEEK_SET) < 0 ? errno : 0;
		if (count < 0)
			return errno;
		for (ssize_t done = 0; done < count;) {
			ssize_t part = write(to, buffer + done, static_cast<size_t>(count - done));
			if (part < 0)
				return errno;
			done += part;
		}
	}
}

// What a file in another enclave holds, brought here; only a regular file is opened there.
int fetch(const Database &database, int to)
{
	const char *path = database.name().c_str();
	return in_enclave(database.enclave(), [&] {
		int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
		struct stat status;
		if (fd < 0 || fstat(fd, &status) != 0)
			return errno;
		return S_ISREG(status.st_mode) ? copy_bytes(fd, to) : EINVAL;
	});
}

Stream open_file(const Database &database)
{
	int error = 0;
	int fd = database.here() ? open(database.name().c_str(), O_RDONLY | O_CLOEXEC)
				 : memfd_create("ostrel-check", MFD_CLOEXEC);
	if (fd < 0)
		error = errno;
	else if (!database.here())
		error = fetch(database, fd);
	struct stat status;
	if (error == 0 && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode))
		error = EISDIR;
	Stream stream(error == 0 ? fdopen(fd, "r") : nullptr);
	if (!stream && fd >= 0)
		(void) close(fd); // nothing was written through it
	if (!stream)
		throw Failure(error == EISDIR ? Exit::invalid : exit_of(ostrel_errno2error(error)), strerror(error))
		    .in(database.label());
	return stream;
}

// The blocks of a file, one after the other, each in the place of the one before.
class Blocks {
public:
	explicit Blocks(FILE *stream) : stream_(stream), memory_(std::make_unique<char[]>(OSTREL_BLOCK_SIZE)) {}

	// Empty at the end, and when a read failed.
	std::string_view next()
	{
		size_t got = fread(memory_.get(), 1, OSTREL_BLOCK_SIZE, stream_);
		total_ += got;
		return {memory_.get(), got};
	}
	// A device such as the one of zeros.
	bool endless() const
	{
		struct stat kind;
		return total_ > OSTREL_BLOCK_SIZE && fstat(fileno(stream_), &kind) == 0 &&
		       (S_ISCHR(kind.st_mode) || S_ISBLK(kind.st_mode));
	}

private:
	FILE *stream_;
	std::unique_ptr<char[]> memory_;
	size_t total_ = 0;
};

// A line that is put together from pieces of blocks.
class LineInPieces {
public:
	void add(std::string_view piece)
	{
		bytes_ += piece.substr(0, OSTREL_LINE_SIZE - bytes_.size());
		line_.length += piece.size();
		line_.has_nul = line_.has_nul || memchr(piece.data(), '\0', piece.size()) != nullptr;
	}
	bool empty() const { return line_.length == 0; }
	size_t number() const { return line_.number; }
	const Line &finish()
	{
		line_.bytes = bytes_;
		return line_;
	}
	void begin_next()
	{
		bytes_.clear();
		line_ = {line_.number + 1, {}, 0, false};
	}

private:
	std::string bytes_;
	Line line_ = {1, {}, 0, false};
};

// Whether the library reads the whole of a line, or it's one that holds nothing.
bool is_kept(const Line &line)
{
	std::string_view bytes = line.bytes;
	if (line.length > OSTREL_LINE_MAX || line.has_nul)
		return false;
	if (!bytes.empty() && bytes.back() == '\n')
		bytes.remove_suffix(1);
	while (!bytes.empty() && ostrel_line_space(bytes[0]))
		bytes.remove_prefix(1);
	if (bytes.empty() || bytes[0] == '#')
		return true;
	std::string copy(bytes);
	attrlist_t *id = nullptr, *props = nullptr;
	ostrel_error_t result = ostrel_line2attrlist(copy.data(), &id, &props);
	List owned_id(id), owned_props(props);
	if (result == OSTREL_NO_MEMORY)
		throw std::bad_alloc();
	return result == OSTREL_SUCCESS;
}

} // namespace

void each_line(const Database &database, const std::function<void(const Line &line)> &visit)
{
	Stream stream = open_file(database);
	Blocks blocks(stream.get());
	LineInPieces line;
	for (std::string_view block; !(block = blocks.next()).empty();) {
		if (blocks.endless())
			throw Failure(Exit::invalid, "is a device that doesn't end").in(database.label());
		while (!block.empty()) {
			size_t newline = block.find('\n');
			bool whole = newline != std::string_view::npos;
			size_t length = whole ? newline + 1 : block.size();
			line.add(block.substr(0, length));
			block.remove_prefix(length);
			if (!whole)
				break;
			visit(line.finish());
			line.begin_next();
		}
	}
	if (ferror(stream.get()) != 0)
		throw Failure(Exit::failure, fmt::format("can't be read: {}", strerror(errno)))
		    .in(database.label())
		    .on_line(line.number());
	if (!line.empty())
		visit(line.finish());
}

void refuse_lost_lines(const Database &database)
{
	size_t first = 0, count = 0;
	try {
		each_line(database, [&](const Line &line) {
			if (is_kept(line))
				return;
			first = count++ == 0 ? line.number : first;
		});
	} catch (const Failure &) {
		return; // what can't be read isn't updated either, and the update itself says why
	}
	if (count > 0)
		throw Failure(Exit::invalid,
		    fmt::format("{} can't be read, and an update would drop {}",
			count == 1 ? "a line" : fmt::format("{} lines", count), count == 1 ? "it" : "them"))
		    .in(database.label())
		    .on_line(first)
		    .next(fmt::format(
			"'ostrel check {}' tells what is wrong; mend the lines or take them out", database.label()));
}
