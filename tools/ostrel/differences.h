// In what two lists of objects differ, as text and as JSON.
#ifndef OSTREL_TOOL_DIFFERENCES_H
#define OSTREL_TOOL_DIFFERENCES_H

#include <cstdio>
#include <vector>

#include "object.h"
#include "shared/json.h"

// An object or a property that differs, as it is on either side; NULL: it is missing there.
struct PropertyDifference {
	const Property *before;
	const Property *after;
};

struct Difference {
	const Object *before;
	const Object *after;
	std::vector<PropertyDifference> props;
};

// In what the properties of two objects differ. What it finds points into both.
std::vector<PropertyDifference> compare_props(const Object &before, const Object &after);
// Pairs objects by their identifiers, and several with the same identifiers in their order. What it finds points into both.
std::vector<Difference> compare(
    const std::vector<Object> &before, const std::vector<Object> &after, bool case_sensitive);

Json differences_to_json(const std::vector<Difference> &differences);
// An object a line, and its properties below it; what goes with a minus, what comes with a plus.
void print_differences(const std::vector<Difference> &differences, FILE *stream = stdout);

#endif
