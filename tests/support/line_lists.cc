#include "line_lists.h"

#include <cstdlib>
#include <fstream>

#include "libostrel_lines.h"
#include "test_paths.h"

AttrList props(const std::string &text)
{
	AttrList idlist;
	AttrList list;
	std::string line = "a=1;\t" + text;
	if (ostrel_line2attrlist(line.data(), idlist.out(), list.out()) != OSTREL_SUCCESS)
		abort();
	return list;
}

std::string show_lists(attrlist_t *idlist, attrlist_t *props)
{
	return "(" + list_text(idlist) + ") (" + (props != nullptr ? list_text(props) : "-") + ")";
}

std::string show_object(attrlist_t *object)
{
	attrlist_t *idlist = nullptr;
	attrlist_t *props = nullptr;
	if (attrlist_lookup_attrlist(object, OSTREL_OBJECT_IDLIST, &idlist) != 0)
		return "no object";
	(void) attrlist_lookup_attrlist(object, OSTREL_OBJECT_PROPS, &props); // stays NULL without properties
	return show_lists(idlist, props);
}

std::vector<std::string> golden_lines(const char *name)
{
	std::ifstream file(std::string(TEST_SOURCE_DIR "/tests/golden/lines/") + name);
	std::vector<std::string> lines;
	for (std::string line; std::getline(file, line);)
		lines.push_back(line);
	return lines;
}
