// Lists and objects written as text in tests. What is shown is made without the library's own writer, so that types and element
// counts can't be mistaken.
#ifndef TESTS_LINE_LISTS_H
#define TESTS_LINE_LISTS_H

#include <string>
#include <vector>

#include "base/guards.h"
#include "libostrel_impl.h"
#include "list_text.h"
#include "lists.h"

// The identifiers of `a=1;b=2`; nothing is escaped.
inline AttrList ids(const std::string &text)
{
	return idl_of(text);
}
// The properties of the second field of a line: `x=int32,1,2;y=string,a`.
AttrList props(const std::string &text);

// `(identifiers) (properties)`, each as list_text() has it; "-" for properties that aren't there.
std::string show_lists(attrlist_t *idlist, attrlist_t *props);
std::string show_object(attrlist_t *object);

// The lines of a file of tests/golden/lines.
std::vector<std::string> golden_lines(const char *name);

// An open flat file, closed at the end.
class TestDb {
public:
	explicit TestDb(const std::string &name, uint64_t flags = 0, enclaveid_t enclave = 0)
	{
		if (ostrel_db_open(name.c_str(), enclave, ostrel_files_db_cmds, flags, &db_) != OSTREL_SUCCESS)
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
