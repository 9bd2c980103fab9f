// A table of property descriptors, read from a JSON document. ostrel(1) describes it.
#ifndef OSTREL_TOOL_TABLE_H
#define OSTREL_TOOL_TABLE_H

#include <deque>
#include <string>
#include <vector>

#include <libostrel.h>

#include "document.h"

class PropertyTable {
public:
	// Throws Failure that names the file and the element.
	explicit PropertyTable(const std::string &file);

	const ostrel_propdesc_t *descs() const { return descs_.data(); }

private:
	void read(const std::string &file);
	void add(const Json &json, const std::string &path);
	void check_name(const char *name, const std::string &path) const;
	char *keep(const Json &json, const std::string &path);
	ostrel_valdesc_t *values(const Json &json, const std::string &path);

	// The descriptors point into these, which never move what they hold.
	std::deque<std::string> texts_;
	std::deque<std::vector<ostrel_valdesc_t>> values_;
	std::vector<ostrel_propdesc_t> descs_;
};

#endif
