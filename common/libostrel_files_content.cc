// What the new file of an update will hold.
#include "libostrel_files_content.h"

#include "libostrel_lines.h"

ostrel_error_t NewContent::add_object(attrlist_t *idlist, attrlist_t *props)
{
	ostrel_line line;
	ostrel_error_t result = ostrel_format_object(idlist, props, &line);
	if (result == OSTREL_INVALID_ARG) {
		writable_ = false;
		return OSTREL_SUCCESS;
	}
	if (result != OSTREL_SUCCESS)
		return SETERROR(result);
	off_t begin = static_cast<off_t>(text_.size());
	if (!text_.append(line.text, line.length))
		return SETERROR(OSTREL_NO_MEMORY);
	return add({false, begin, begin + static_cast<off_t>(line.length)});
}

ostrel_error_t NewContent::write(const OldFile &old_file, NewFile *file) const
{
	for (const Stretch &stretch : stretches_) {
		if (stretch.copied) {
			if (ostrel_error_t bad = old_file.copy(stretch.begin, stretch.end, file))
				return bad;
			continue;
		}
		size_t length = static_cast<size_t>(stretch.end - stretch.begin);
		if (int error = file->append(text_.begin() + stretch.begin, length))
			return SETERRNO(error);
	}
	return OSTREL_SUCCESS;
}
