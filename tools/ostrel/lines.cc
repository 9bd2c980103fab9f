// Divisions: the file, its lines, what an update makes of them.
#include "lines.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

#include "base/guards.h"
#include "enclave_child.h"
#include "libostrel_files_blocks.h"
#include "libostrel_files_fields.h"
#include "libostrel_lines.h"
#include "scratch.h"

namespace {

// ---- The file ----

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

// Copies what a file in another enclave holds. Only a regular file is opened there.
int fetch(const DatabaseName &file, int to)
{
	const char *path = file.name.c_str();
	return in_enclave(file.enclave, [&] {
		int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
		struct stat status;
		if (fd < 0 || fstat(fd, &status) != 0)
			return errno;
		return S_ISREG(status.st_mode) ? copy_bytes(fd, to) : EINVAL;
	});
}

int open_here(const DatabaseName &file, Stream *stream)
{
	Fd fd(file.is_own_path() ? open(file.name.c_str(), O_RDONLY | O_CLOEXEC)
				 : memfd_create("ostrel-check", MFD_CLOEXEC));
	if (!fd)
		return errno;
	if (!file.is_own_path()) {
		if (int error = fetch(file, fd.get()))
			return error;
	}
	struct stat status;
	if (fstat(fd.get(), &status) == 0 && S_ISDIR(status.st_mode))
		return EISDIR;
	*stream = Stream(fdopen(fd.get(), "r"));
	if (!*stream)
		return errno;
	(void) fd.release(); // the stream's now
	return 0;
}

Stream open_file(const DatabaseName &file)
{
	Stream stream;
	if (int error = open_here(file, &stream))
		throw Failure(error == EISDIR ? Exit::invalid : exit_of(ostrel_errno2error(error)), strerror(error))
		    .in(file.label);
	return stream;
}

// The blocks of a file, one after the other, in one buffer.
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

// ---- Its lines ----

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

// Takes apart a line that the library would copy as it stands.
class LineParts {
public:
	bool take(const Line &line)
	{
		if (line.length > OSTREL_LINE_MAX || line.bytes.back() != '\n')
			return false;
		fields_.forget(); // they point into the previous line
		memcpy(text_, line.bytes.data(), line.length);
		index_.build(text_, text_ + line.length);
		StructureCursor cursor(index_);
		const char *newline = nullptr;
		return ostrel_take_apart(text_, &cursor, &fields_, &newline) && ostrel_is_as_written(fields_, newline);
	}
	// Of the last line that was taken.
	const ostrel_fields &fields() const { return fields_; }

private:
	char text_[OSTREL_LINE_SIZE + OSTREL_BLOCK_SLACK] = {};
	StructureIndex index_;
	ostrel_fields fields_ = {};
};

// A line without its newline and the white space before its first character, by which comments and empty lines are known.
std::string_view without_space(std::string_view bytes)
{
	if (!bytes.empty() && bytes.back() == '\n')
		bytes.remove_suffix(1);
	while (!bytes.empty() && ostrel_line_space(bytes[0]))
		bytes.remove_prefix(1);
	return bytes;
}

// The lists of an object line, from the library's general parser; none if it can't be read.
struct Lists {
	List id, props;
};

Lists lists_of(std::string_view object)
{
	std::string copy(object);
	attrlist_t *id = nullptr, *props = nullptr;
	ostrel_error_t result = ostrel_line2attrlist(copy.data(), &id, &props);
	if (result == OSTREL_NO_MEMORY)
		throw std::bad_alloc();
	return {List(id), List(props)};
}

// ---- What an update makes of them ----

// What an update makes of a line.
enum class LineFate { kept, dropped, unread, rewritten };

LineFate fate_of(const Line &line)
{
	if (line.length > OSTREL_LINE_MAX || line.has_nul)
		return LineFate::unread;
	const std::string_view object = without_space(line.bytes);
	if (object.empty() || object[0] == '#')
		return LineFate::dropped;
	Lists lists = lists_of(object);
	if (!lists.id)
		return LineFate::unread;
	ostrel_line again;
	if (ostrel_format_object(lists.id.get(), lists.props.get(), &again) != OSTREL_SUCCESS)
		return LineFate::kept; // it blocks every update
	const bool ended = line.bytes.back() == '\n';
	return line.bytes == std::string_view(again.text, again.length - (ended ? 0 : 1)) ? LineFate::kept
											  : LineFate::rewritten;
}

struct Fates {
	size_t dropped = 0, unread = 0, rewritten = 0;
	size_t first = 0; // line that isn't kept
	size_t first_unread = 0;

	void add(const Line &line)
	{
		const LineFate fate = parts_.take(line) ? LineFate::kept : fate_of(line);
		if (fate == LineFate::kept)
			return;
		if (first == 0)
			first = line.number;
		if (fate == LineFate::unread && unread++ == 0)
			first_unread = line.number;
		dropped += fate == LineFate::dropped;
		rewritten += fate == LineFate::rewritten;
	}

private:
	LineParts parts_;
};

// Nothing for a file that can't be read: the read or update that fails then reports why.
std::optional<Fates> fates_of_lines(const DatabaseName &file)
{
	Fates fates;
	try {
		each_line(file, [&](const Line &line) { fates.add(line); });
	} catch (const Failure &) {
		return std::nullopt;
	}
	return fates;
}

std::string lines_text(size_t count)
{
	return count == 1 ? "1 line" : fmt::format("{} lines", count);
}

// Such as "drop 2 comments or empty lines and rewrite 1 line".
std::string loss_text(const Fates &fates)
{
	std::vector<std::string> parts;
	if (fates.unread > 0)
		parts.push_back(fmt::format("drop {} that can't be read", lines_text(fates.unread)));
	if (fates.dropped > 0)
		parts.push_back(fmt::format("drop {} {}", fates.dropped,
		    fates.dropped == 1 ? "comment or empty line" : "comments or empty lines"));
	if (fates.rewritten > 0)
		parts.push_back(fmt::format("rewrite {}", lines_text(fates.rewritten)));
	std::string text = parts[0];
	for (size_t i = 1; i < parts.size(); i++)
		text += (i + 1 < parts.size() ? ", " : " and ") + parts[i];
	return text;
}

std::string line_of(LineMaker &maker, const Object &object, const DatabaseName &file, bool changed)
{
	try {
		return maker.line(object);
	} catch (const Failure &failure) {
		if (failure.code != Exit::invalid || changed)
			throw;
		throw others_damaged(file.label);
	}
}

} // namespace

void each_line(const DatabaseName &file, const std::function<void(const Line &line)> &visit)
{
	Stream stream = open_file(file);
	Blocks blocks(stream.get());
	LineInPieces line;
	for (std::string_view block; !(block = blocks.next()).empty();) {
		if (blocks.endless())
			throw Failure(Exit::invalid, "is a device that doesn't end").in(file.label);
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
		    .in(file.label)
		    .on_line(line.number());
	if (!line.empty())
		visit(line.finish());
}

std::string changed_lines(
    const DatabaseName &file, const Identifiers &id, const std::function<bool(Object &object)> &change)
{
	const std::string wanted = identity(id, file.case_sensitive);
	List ids = id_list(id);
	FieldMatch match;
	const bool comparing = match.prepare(file.case_sensitive, ids.get(), true);
	LineParts parts;
	LineMaker maker;
	std::string text;
	each_line(file, [&](const Line &line) {
		if (comparing && parts.take(line) && !match.selects(parts.fields())) {
			text += line.bytes;
			return;
		}
		const std::string_view bytes = without_space(line.bytes);
		if (line.length > OSTREL_LINE_MAX || bytes.empty() || bytes[0] == '#')
			return;
		Lists lists = lists_of(bytes);
		if (!lists.id)
			return;
		Object object = object_from_lists(lists.id.get(), lists.props.get());
		const bool changes = identity(object.id, file.case_sensitive) == wanted;
		if (!changes || change(object))
			text += line_of(maker, object, file, changes);
	});
	return text;
}

Failure others_damaged(const std::string &label)
{
	return Failure(Exit::invalid, "another object of the database can't be written back")
	    .next(fmt::format("ostrel check {} tells which lines are damaged", label))
	    .in(label);
}

void look_for_lost_lines(const DatabaseName &file, bool accepted)
{
	const std::optional<Fates> fates = fates_of_lines(file);
	if (!fates || fates->first == 0)
		return;
	if (accepted) {
		warn(Failure(Exit::done, fmt::format("the update will {}", loss_text(*fates))).in(file.label));
		return;
	}
	throw Failure(Exit::invalid, fmt::format("an update would {}", loss_text(*fates)))
	    .in(file.label)
	    .on_line(fates->unread > 0 ? fates->first_unread : fates->first)
	    .next(fates->unread > 0
		      ? fmt::format("'ostrel check {}' tells what is wrong; mend the lines, or lose them with --force",
			    file.label)
		      : std::string("--force updates the file all the same"));
}

void tell_unread_lines(const DatabaseName &file)
{
	struct stat status;
	if (file.is_own_path() && (stat(file.name.c_str(), &status) != 0 || !S_ISREG(status.st_mode)))
		return;
	const std::optional<Fates> fates = fates_of_lines(file);
	if (fates && fates->unread > 0)
		warn(Failure(Exit::done, fmt::format("{} can't be read", lines_text(fates->unread)))
			 .in(file.label)
			 .on_line(fates->first_unread)
			 .next(fmt::format("'ostrel check {}' tells what is wrong", file.label)));
}
