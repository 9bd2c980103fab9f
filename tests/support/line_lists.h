// Lists and objects written as text in tests. What is shown is made without the library's own writer, so that types and
// element counts can't be mistaken.
#ifndef TESTS_LINE_LISTS_H
#define TESTS_LINE_LISTS_H

#include <string>

#include "base/guards.h"
#include "libostrel_impl.h"

// The identifiers of `a=1;b=2`; nothing is escaped.
AttrList ids(const std::string &text);
// The properties of the second field of a line: `x=int32,1,2;y=string,a`.
AttrList props(const std::string &text);

// `name:type[value|value]` for each pair, with the type's number.
std::string show(attrlist_t *list);
// Both lists of an object, `(identifiers) (properties)`; "-" for properties that aren't there.
std::string show_object(attrlist_t *object);

// An open database, closed at the end.
class TestDb {
public:
	explicit TestDb(const std::string &name, uint64_t flags = 0, ostrel_db_cmds_t cmds = ostrel_files_db_cmds)
	{
		if (ostrel_db_open(name.c_str(), 0, cmds, flags, &db_) != OSTREL_SUCCESS)
			abort();
	}
	TestDb(const TestDb &) = delete;
	TestDb &operator=(const TestDb &) = delete;
	~TestDb() { ostrel_db_close(db_); }
	operator ostrel_db_t() const { return db_; }

private:
	ostrel_db_t db_ = nullptr;
};

#endif
