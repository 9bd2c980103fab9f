// What the rights file says, apart from where it lies and who may ask.
#ifndef MERIDON_RIGHTS_RIGHTS_H
#define MERIDON_RIGHTS_RIGHTS_H

#include <string_view>

namespace rights {

// Whose rights are asked for. `in_group` is called for the lines of groups that would grant the right.
class Holder {
public:
	virtual bool is_user(std::string_view name) = 0;
	virtual bool in_group(std::string_view name) = 0;

protected:
	~Holder() = default;
};

// Tells whether a name is one that a right can have: letters, digits, '.', '-' and '_'.
bool is_right(std::string_view name);

// Tells whether a file of this content grants a right to somebody. A line that can't be read whole grants nothing.
bool grants(std::string_view text, std::string_view right, Holder &holder);

} // namespace rights

#endif
