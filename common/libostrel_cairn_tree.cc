// Paths and groups. A group is looked up by its path of names, found in a walk over all whose path of types fits a pattern, or
// created along with the levels that are missing above it. The whole state of a walk lies in the operation's work: the caller
// gets one group a step and asks again for the next.
//
// Divisions: paths; the current group; walking; looking a group up; creating a group.
#include <cerrno>
#include <cstring>
#include <string_view>
#include <strings.h>

#include "libostrel_cairn.h"

// ---- Paths ----

char *strip_leading_and_terminating_delims(char *str, char delim)
{
	while (*str == delim && *str != '\0')
		str++;
	for (size_t length = strlen(str); length > 0 && str[length - 1] == delim; length--)
		str[length - 1] = '\0';
	return str;
}

// A path that is cut to fit names another group, so that a long one is refused.
ostrel_error_t RpyPath::set_pattern(const char *path)
{
	const size_t length = strnlen(path, sizeof(text));
	if (length == sizeof(text))
		return OSTREL_INVALID_ARG;
	memcpy(text, path, length + 1);
	count = 0;
	char *rest = strip_leading_and_terminating_delims(text, '/');
	while (rest != nullptr && *rest != '\0') {
		if (count == OSTREL_RPY_MAX_DEPTH)
			return OSTREL_INVALID_ARG;
		component[count++] = strsep(&rest, "/");
	}
	return OSTREL_SUCCESS;
}

ostrel_error_t RpyPath::set(const char *path)
{
	const ostrel_error_t result = set_pattern(path);
	return result == OSTREL_SUCCESS && count == 0 ? OSTREL_INVALID_ARG : result;
}

// ---- The current group ----

rpy_propertygroup_t *ostrel_res_pg_curr(const ostrel_rpy_work_t *work)
{
	return work->nsr_pg[work->nsr_pgdepth];
}

namespace {

// A path that is put together level by level. What doesn't fit is cut off.
struct PathText {
	char text[OSTREL_RPY_NAME_MAX] = "";
	size_t length = 0;

	void add(std::string_view component)
	{
		if (length > 0)
			append("/");
		append(component);
	}

private:
	void append(std::string_view part)
	{
		length += part.copy(text + length, sizeof(text) - 1 - length);
		text[length] = '\0';
	}
};

// The name and type of a group.
struct GroupNames {
	char name[OSTREL_RPY_NAME_MAX];
	char type[OSTREL_RPY_NAME_MAX];

	ostrel_error_t read(const rpy_propertygroup_t *pg)
	{
		if (rpy_pg_get_type(pg, type, sizeof(type)) == -1 || rpy_pg_get_name(pg, name, sizeof(name)) == -1)
			return SETERROR(ostrel_rpy_failure());
		return OSTREL_SUCCESS;
	}
};

} // namespace

ostrel_error_t ostrel_rpy_set_pg(ostrel_rpy_work_t *work, int depth)
{
	PathText names, types;
	for (int d = 0; d <= depth; d++) {
		GroupNames group;
		if (ostrel_error_t result = group.read(work->nsr_pg[d]))
			return result;
		names.add(group.name);
		types.add(group.type);
	}
	memcpy(work->nsr_pgname, names.text, sizeof(names.text));
	memcpy(work->nsr_pgtype, types.text, sizeof(types.text));
	work->nsr_pgdepth = depth;
	return OSTREL_SUCCESS;
}

// ---- Walking ----

void ostrel_rpy_iter_reset(ostrel_rpy_work_t *work)
{
	memset(work->nsr_pgiterstate, 0, sizeof(work->nsr_pgiterstate));
}

// A walk goes depth first, with one iterator a level, and is resumed where it gave its last group: nsr_pgiterstate says for each
// level whether its iterator is under way, so that the deepest one that is continues first. A level that has run out is idle
// again, and the level above it steps on. Listings are complete when their iterator starts: the store may change meanwhile, and
// a walk doesn't show one moment.
namespace {

// What a walk looks for at one depth: a name, without regard to case, or a type pattern.
struct Wanted {
	const char *text;
	bool is_name;

	const char *name() const { return is_name ? text : nullptr; }
	const char *type() const { return is_name ? nullptr : text; }
	bool fits(const GroupNames &group) const
	{
		if (is_name)
			return strcasecmp(group.name, text) == 0;
		const char *star = strchr(text, '*');
		return star == nullptr ? strcmp(group.type, text) == 0
				       : strncmp(group.type, text, static_cast<size_t>(star - text)) == 0;
	}
};

struct WantedPath {
	const RpyPath &path;
	bool is_name;

	int count() const { return path.count; }
	Wanted at(int depth) const { return {path.component[depth], is_name}; }
};

// Sets the iterator of a depth before its first group. The daemon leaves out groups that can't fit.
int start_iterator(ostrel_rpy_work_t *work, int depth, const Wanted &wanted)
{
	rpy_iter_t *iter = work->nsr_pgiter[depth];
	if (depth > 0)
		return _rpy_iter_pg_pgs_like(iter, work->nsr_pg[depth - 1], wanted.name(), wanted.type());
	if (work->nsr_svclevelop)
		return _rpy_iter_service_pgs_like(iter, work->nsr_svc, wanted.name(), wanted.type());
	return _rpy_iter_instance_pgs_like(iter, work->nsr_op_inst, wanted.name(), wanted.type());
}

ostrel_error_t ostrel_rpy_iter_pgs(ostrel_rpy_work_t *work, int depth, const Wanted &wanted)
{
	for (int d = depth; d < OSTREL_RPY_MAX_DEPTH; d++)
		work->nsr_pgiterstate[d] = 0;
	if (ostrel_rpy_is_over(work))
		return SETERROR(OSTREL_FAILURE);
	if (start_iterator(work, depth, wanted) == 0)
		return OSTREL_SUCCESS;
	// The group above was deleted since it was listed: nothing is below it.
	if (depth > 0 && rpy_error() == RPY_ERROR_DELETED)
		return OSTREL_WALK_HALTED;
	return SETERROR(ostrel_rpy_failure());
}

ostrel_error_t next_pg(ostrel_rpy_work_t *work, int depth, const WantedPath &path);

// Continues below the group of a depth. OSTREL_WALK_HALTED if no further group there fits.
ostrel_error_t next_below(ostrel_rpy_work_t *work, int depth, const WantedPath &path)
{
	return depth + 1 < path.count() ? next_pg(work, depth + 1, path) : OSTREL_WALK_HALTED;
}

// Resumes a level where the last group was left, or starts it.
ostrel_error_t resume_level(ostrel_rpy_work_t *work, int depth, const WantedPath &path)
{
	if (work->nsr_pgiterstate[depth] == 0)
		return ostrel_rpy_iter_pgs(work, depth, path.at(depth));
	if (depth + 1 == OSTREL_RPY_MAX_DEPTH || work->nsr_pgiterstate[depth + 1] == 0)
		return OSTREL_SUCCESS;
	return next_below(work, depth, path);
}

// Steps a level to its next group that fits.
ostrel_error_t step_level(ostrel_rpy_work_t *work, int depth, const Wanted &wanted)
{
	for (;;) {
		if (rpy_iter_next_pg(work->nsr_pgiter[depth], work->nsr_pg[depth]) != 1) {
			work->nsr_pgiterstate[depth] = 0;
			return OSTREL_WALK_HALTED;
		}
		work->nsr_pgiterstate[depth]++;
		if (depth + 1 < OSTREL_RPY_MAX_DEPTH)
			work->nsr_pgiterstate[depth + 1] = 0;
		GroupNames group;
		if (ostrel_error_t result = group.read(work->nsr_pg[depth]))
			return result;
		if (wanted.fits(group))
			return OSTREL_SUCCESS;
	}
}

// One level of the walk: depth first, in the order of the iterators.
ostrel_error_t next_pg(ostrel_rpy_work_t *work, int depth, const WantedPath &path)
{
	const bool was_below = work->nsr_pgiterstate[depth] != 0 && depth + 1 < OSTREL_RPY_MAX_DEPTH &&
			       work->nsr_pgiterstate[depth + 1] != 0;
	ostrel_error_t result = resume_level(work, depth, path);
	if (was_below ? result != OSTREL_WALK_HALTED : result != OSTREL_SUCCESS)
		return result;
	for (;;) {
		if (ostrel_error_t ended = step_level(work, depth, path.at(depth)))
			return ended;
		if (depth + 1 == path.count())
			return ostrel_rpy_set_pg(work, depth);
		result = next_below(work, depth, path);
		if (result != OSTREL_WALK_HALTED)
			return result;
	}
}

} // namespace

ostrel_error_t ostrel_rpy_iter_next_pg(ostrel_rpy_work_t *work, const RpyPath *name, const RpyPath *type)
{
	if ((name == nullptr) == (type == nullptr))
		return OSTREL_INVALID_ARG;
	const WantedPath path = {name != nullptr ? *name : *type, name != nullptr};
	return path.count() > 0 ? next_pg(work, 0, path) : OSTREL_WALK_HALTED;
}

// ---- Looking a group up ----

// Fills the group of a depth with the one of that name below the level above. Gives 0 or -1.
static int look_up(ostrel_rpy_work_t *work, int depth, const char *name)
{
	if (depth > 0)
		return rpy_pg_get_pg(work->nsr_pg[depth - 1], name, work->nsr_pg[depth]);
	if (work->nsr_svclevelop)
		return rpy_service_get_pg(work->nsr_svc, name, work->nsr_pg[0]);
	return rpy_instance_get_pg(work->nsr_op_inst, name, work->nsr_pg[0]);
}

// With the repository's own comparison of names.
static ostrel_error_t ostrel_rpy_get_pg(ostrel_rpy_work_t *work, const RpyPath &path)
{
	for (int depth = 0; depth < path.count; depth++) {
		if (ostrel_rpy_is_over(work))
			return SETERROR(OSTREL_FAILURE);
		if (look_up(work, depth, path.component[depth]) != 0)
			return SETERROR(ostrel_rpy_failure());
	}
	return ostrel_rpy_set_pg(work, path.count - 1);
}

// An exact spelling always wins. Only after it wasn't found does a walk look for the first path that fits without regard to
// case; nsr_pgname has the stored spelling afterwards.
ostrel_error_t ostrel_rpy_get_real_pg(ostrel_db_t db, ostrel_rpy_work_t *work, const char *name)
{
	RpyPath path;
	if (name == nullptr || strchr(name, '*') != nullptr)
		return OSTREL_INVALID_ARG;
	if (ostrel_error_t result = path.set(name))
		return result;
	ostrel_error_t result = ostrel_rpy_get_pg(work, path);
	if (result != OSTREL_NOT_FOUND || ostrel_is_case_sensitive(db))
		return result;
	ostrel_rpy_iter_reset(work);
	result = ostrel_rpy_iter_next_pg(work, &path, nullptr);
	return result == OSTREL_WALK_HALTED ? OSTREL_NOT_FOUND : result;
}

// ---- Creating a group ----

static int add_level(ostrel_rpy_resources_t *res, int depth, const char *name, const char *type)
{
	const uint32_t flags = res->nsr_temp ? RPY_PG_FLAG_TEMPORARY : 0;
	if (depth > 0)
		return rpy_pg_add_pg(res->nsr_pg[depth - 1], name, type, flags, res->nsr_pg[depth]);
	if (res->nsr_svclevelop)
		return rpy_service_add_pg(res->nsr_svc, name, type, flags, res->nsr_pg[0]);
	return rpy_instance_add_pg(res->nsr_op_inst, name, type, flags, res->nsr_pg[0]);
}

// Finds or creates the group of a depth.
static ostrel_error_t find_or_add_level(
    ostrel_rpy_resources_t *res, int depth, const char *name, const char *type, RpyCreation *made)
{
	if (ostrel_rpy_is_over(res))
		return SETERROR(OSTREL_FAILURE);
	if (look_up(res, depth, name) == 0)
		return OSTREL_SUCCESS;
	if (rpy_error() != RPY_ERROR_NOT_FOUND)
		return SETERROR(ostrel_rpy_failure());
	if (strchr(type, '*') != nullptr)
		return SETERROR(OSTREL_INVALID_ARG);
	if (add_level(res, depth, name, type) != 0)
		return SETERROR(ostrel_rpy_failure());
	made->first = made->first == -1 ? depth : made->first;
	made->last = depth;
	return OSTREL_SUCCESS;
}

// After a failure the current group is the topmost one that this call created: taking it back takes the others along. If the
// type path ran out, it is the last group that was reached.
ostrel_error_t ostrel_rpy_add_pg(ostrel_rpy_resources_t *res, const char *name, const char *type, RpyCreation *made)
{
	RpyPath names, types;
	ostrel_error_t result = names.set(name);
	if (result == OSTREL_SUCCESS)
		result = types.set(type);
	if (result != OSTREL_SUCCESS)
		return SETERROR(result);
	for (int depth = 0; depth < names.count; depth++) {
		if (depth == types.count) {
			res->nsr_pgdepth = depth - 1;
			return SETERROR(OSTREL_INVALID_ARG);
		}
		result = find_or_add_level(res, depth, names.component[depth], types.component[depth], made);
		if (result != OSTREL_SUCCESS) {
			res->nsr_pgdepth = made->first == -1 ? 0 : made->first;
			return result;
		}
	}
	return ostrel_rpy_set_pg(res, names.count - 1);
}
