// Divisions: lines, what can't be stored.
#include "scratch.h"

#include <new>

#include <fmt/format.h>

#include "libostrel_lines.h"

// ---- Lines ----

ostrel_error_t LineMaker::write(const Object &object)
{
	List id = id_list(object.id);
	List props = props_list(object.props);
	ostrel_line line;
	ostrel_error_t result = ostrel_format_object(id.get(), props.get(), &line);
	line_ = result == OSTREL_SUCCESS ? std::string(line.text, line.length) : "";
	return result;
}

const std::string &LineMaker::line(const Object &object)
{
	ostrel_error_t result = write(object);
	if (result == OSTREL_NO_MEMORY)
		throw std::bad_alloc();
	if (result != OSTREL_SUCCESS)
		throw unstorable(object);
	return line_;
}

Object LineMaker::stored() const
{
	std::string text = line_.substr(0, line_.find('\n'));
	attrlist_t *id = nullptr, *props = nullptr;
	if (ostrel_line2attrlist(text.data(), &id, &props) != OSTREL_SUCCESS)
		throw std::bad_alloc(); // nothing else can be wrong: the library wrote the line
	List owned_id(id), owned_props(props);
	return object_from_lists(id, props);
}

// ---- What can't be stored ----

Failure unstorable(const Object &object)
{
	LineMaker maker;
	if (maker.write({object.id, {}}) == OSTREL_INVALID_ARG)
		return Failure(Exit::invalid, fmt::format("the identifiers {} can't be stored", id_text(object.id)))
		    .next(
			"a database file takes 255 bytes of name=value; in all, without newlines, TABs and semicolons, "
			"without = in a name, # or white space at its start, or a backslash at the end of either");
	Identifiers probe = {{"a", "b"}};
	for (const Property &property : object.props) {
		if (maker.write({probe, {property}}) == OSTREL_INVALID_ARG)
			return Failure(Exit::invalid,
			    fmt::format("the property {} of {} can't be stored", property.name, id_text(object.id)))
			    .next("a database file takes no newline in a value, at most 511 bytes of it (commas, "
				  "semicolons "
				  "and backslashes count twice), and no ; or = or final backslash in a name");
	}
	return Failure(Exit::invalid, fmt::format("the object {} is too long", id_text(object.id)))
	    .next("an object takes one line of at most 2047 bytes");
}

std::string storage_loss(const Object &wanted, const Object &stored)
{
	for (const Property &property : wanted.props) {
		const Property *back = stored.find(property.name);
		if (back == nullptr)
			return fmt::format("the property {} isn't stored", property.name);
		if (!same_value(property, *back))
			return fmt::format(
			    "the property {} comes back with {} instead of {} values: a database file keeps no "
			    "empty last value",
			    property.name, back->values.size(), property.values.size());
	}
	return stored.id == wanted.id ? "" : "the identifiers come back changed";
}
