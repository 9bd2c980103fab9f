#include "sqlite_schema.h"

#include <cerrno>
#include <iterator>

#include "rpy/wire.h"

namespace repository {
namespace {

// `version` is 0 for what has no properties. Names are compared with case. A parent has a lower id than what hangs below it, since ids
// rise and nothing moves: sorted by id, parents come first.
constexpr const char *schema = R"(
create table nodes(id integer primary key, kind integer not null, parent integer references nodes(id), name text not null,
	type text not null, version integer not null);
create unique index names on nodes(parent, kind, name);
create table versions(id integer primary key, properties blob not null);
create table state(id integer primary key check (id = 1), commits integer not null, next integer not null);
insert into state values(1, 0, 2);
)";

// By Row::What. Each has to change exactly one row.
// A parameter means the same in all of them, so that one piece of code binds a row; a statement takes those that it names.
constexpr const char *row_statements[] = {
    "insert into nodes values(?1, ?2, nullif(?3, 0), ?4, ?5, ?6)",
    "update nodes set version = ?6 where id = ?1",
    "delete from nodes where id = ?1",
    "insert into versions values(?1, ?7)",
    "delete from versions where id = ?1",
};
constexpr size_t state_statement = std::size(row_statements);
static_assert(state_statement < SqliteConnection::kept_most);

// ---- The format ----

// What a database consists of: the statements that made it, but those of the tables that an operator's `analyze` makes.
// The names of its entries prove nothing: the writer of a file chooses them.
int schema_of(sqlite3 *database, std::string *text)
{
	Statement rows;
	int code = prepare(database,
	    "select sql from sqlite_schema where sql is not null and sql not in ("
	    "'CREATE TABLE sqlite_stat1(tbl,idx,stat)', 'CREATE TABLE sqlite_stat4(tbl,idx,neq,nlt,ndlt,sample)')"
	    " order by name, sql",
	    &rows);
	while (code == SQLITE_OK && (code = sqlite3_step(rows.get())) == SQLITE_ROW) {
		*text += std::string(blob_of(rows.get(), 0)) + ";";
		code = SQLITE_OK;
	}
	return code == SQLITE_DONE ? SQLITE_OK : code;
}

// What `schema` comes to in the words in which this version of SQLite keeps it.
int own_schema(std::string *text)
{
	Database made;
	int code = sqlite3_open(":memory:", made.out());
	if (code == SQLITE_OK)
		code = run(made.get(), schema);
	return code == SQLITE_OK ? schema_of(made.get(), text) : code;
}

int read_number(const SqliteConnection &store, const char *text, int *value)
{
	Statement statement;
	int code = store.prepare(text, &statement);
	if (code == SQLITE_OK)
		code = sqlite3_step(statement.get());
	if (code != SQLITE_ROW)
		return code;
	*value = sqlite3_column_int(statement.get(), 0);
	return SQLITE_OK;
}

Failure check_soundness(const SqliteConnection &store, const std::string &path)
{
	Statement check;
	int code = store.prepare("pragma quick_check(1)", &check);
	if (code == SQLITE_OK)
		code = sqlite3_step(check.get());
	if (code == SQLITE_ROW && blob_of(check.get(), 0) == "ok")
		return {};
	if (code != SQLITE_ROW && !is_damage(code))
		return store.failure(code, "can't be checked");
	return {EIO, path + ": is damaged: restore it from a backup"};
}

// ---- Rows ----

void bind_text(sqlite3_stmt *statement, int at, std::string_view text)
{
	if (sqlite3_bind_parameter_count(statement) >= at)
		(void) sqlite3_bind_text64(
		    statement, at, text.data() == nullptr ? "" : text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void bind_number(sqlite3_stmt *statement, int at, uint64_t number)
{
	if (sqlite3_bind_parameter_count(statement) >= at)
		(void) sqlite3_bind_int64(statement, at, static_cast<int64_t>(number));
}

uint64_t number_of(sqlite3_stmt *statement, int column)
{
	return static_cast<uint64_t>(sqlite3_column_int64(statement, column));
}

} // namespace

// From the cheap to the dear: the numbers in the head of the file, its schema, its content. Only a file that has passed the one
// before is worth the next; and until all have passed, nothing of what the file holds is believed.
Failure check_format(SqliteConnection *store, const std::string &path, bool *fresh)
{
	int kind = 0, format = 0, tables = 0;
	const std::pair<const char *, int *> numbers[] = {{"pragma application_id", &kind},
	    {"pragma user_version", &format}, {"select count(*) from sqlite_schema", &tables}};
	for (auto [text, value] : numbers)
		if (int code = read_number(*store, text, value))
			return store->failure(code, "not a repository");
	*fresh = kind == 0 && format == 0 && tables == 0;
	if (*fresh)
		return {};
	if (static_cast<uint32_t>(kind) != store_application_id)
		return {EIO, path + ": not a repository"};
	if (format != static_cast<int>(store_format))
		return {EIO, path + ": has format " + std::to_string(format) + ", and this daemon knows " +
				 std::to_string(store_format) + " alone"};
	std::string ours, theirs;
	int code = own_schema(&ours);
	if (code == SQLITE_OK)
		code = schema_of(store->get(), &theirs);
	if (code != SQLITE_OK)
		return store->failure(code, "can't be read");
	if (ours != theirs) // somebody else's constraint or trigger would run here
		return {EIO, path + ": not a repository: its tables aren't this daemon's"};
	return check_soundness(*store, path);
}

int make_format(SqliteConnection *store)
{
	const std::string text = schema + ("pragma application_id=" + std::to_string(store_application_id)) +
				 ";pragma user_version=" + std::to_string(store_format);
	return store->run(text.c_str());
}

int read_state(SqliteConnection *store, StoreState *state)
{
	Statement row;
	int code = store->prepare("select commits, next from state", &row);
	if (code == SQLITE_OK)
		code = sqlite3_step(row.get());
	if (code != SQLITE_ROW)
		return code == SQLITE_DONE ? SQLITE_CORRUPT : code;
	*state = {sqlite3_column_int64(row.get(), 0), number_of(row.get(), 1)};
	return SQLITE_OK;
}

// In the caller's transaction, so that versions, nodes and state are of one moment. What the file holds is checked as if a
// stranger had written it: properties here, and the tree by the loader.
Failure load(SqliteConnection *store, const std::string &path, const Store::Loader &loader, StoreState *state)
{
	Statement versions, nodes;
	int code = store->prepare("select id, properties from versions", &versions);
	if (code == SQLITE_OK)
		code = store->prepare(
		    "select id, kind, ifnull(parent, 0), name, type, version from nodes order by id", &nodes);
	if (code != SQLITE_OK)
		return store->failure(code, "can't be read");
	while ((code = sqlite3_step(versions.get())) == SQLITE_ROW) {
		const std::string_view properties = blob_of(versions.get(), 1);
		if (!rpy::are_properties(properties))
			return {EIO, path + ": is damaged: a version holds no properties; restore it from a backup"};
		loader.version(number_of(versions.get(), 0), properties);
	}
	while (code == SQLITE_DONE && (code = sqlite3_step(nodes.get())) == SQLITE_ROW) {
		sqlite3_stmt *node = nodes.get();
		const Row row = {Row::What::put_node, number_of(node, 0), static_cast<uint32_t>(number_of(node, 1)),
		    number_of(node, 2), number_of(node, 5), blob_of(node, 3), blob_of(node, 4), {}};
		if (!loader.node(row))
			return {EIO, path + ": is damaged: node " + std::to_string(row.id) +
					 " doesn't fit; restore it from a backup"};
		code = SQLITE_DONE;
	}
	if (code == SQLITE_DONE)
		code = read_state(store, state);
	return code == SQLITE_OK ? Failure{} : store->failure(code, "can't be read");
}

int write_row(SqliteConnection *store, const Row &row)
{
	const auto kind = static_cast<size_t>(row.what);
	int code = SQLITE_OK;
	sqlite3_stmt *statement = store->keep(kind, row_statements[kind], &code);
	if (code != SQLITE_OK)
		return code;
	bind_number(statement, 1, row.id);
	bind_number(statement, 2, row.kind);
	bind_number(statement, 3, row.parent);
	bind_text(statement, 4, row.name);
	bind_text(statement, 5, row.type);
	bind_number(statement, 6, row.version);
	if (row.what == Row::What::put_version)
		(void) sqlite3_bind_blob64(statement, 7, row.properties.data(), row.properties.size(), SQLITE_STATIC);
	return store->change_one(statement);
}

int write_state(SqliteConnection *store, const StoreState &state)
{
	int code = SQLITE_OK;
	sqlite3_stmt *statement =
	    store->keep(state_statement, "update state set commits = ?1, next = ?2 where commits = ?1 - 1", &code);
	if (code != SQLITE_OK)
		return code;
	bind_number(statement, 1, static_cast<uint64_t>(state.commits));
	bind_number(statement, 2, state.next);
	return store->change_one(statement);
}

} // namespace repository
