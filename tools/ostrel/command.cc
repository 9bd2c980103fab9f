// What several commands share.
#include "command.h"

#include <cstdio>

#include <fmt/format.h>

#include "database.h"
#include "document.h"
#include "stores.h"
#include "text.h"

void declare_database(CLI::App &app, Options &options)
{
	app.add_option("DB", options.database, fmt::format("The database: PATH, {}", database_forms()))->required();
	declare_enclave(app, options.enclave, "The enclave in which the database lies");
	app.add_flag("--case", options.case_sensitive, "Compare identifiers with case");
}

void declare_identifiers(CLI::App &app, Options &options)
{
	app.add_option("ID", options.words, "Identifiers: key=value")->type_name("");
}

void declare_update(CLI::App &app, Options &options)
{
	declare_dry_run(app, options);
	app.add_flag("--no-wait", options.no_wait, "Don't wait for a store that defers the update");
	app.add_flag("--force", options.force, "Update a file though comments and lines in another form are lost");
}

std::unique_ptr<Database> open_database(const Options &options)
{
	return open_database(options.database, enclave_option(options.enclave), options.case_sensitive);
}

std::string property_text(const Property &property, bool types)
{
	const std::string type = types ? fmt::format(":{}", property.type->word) : "";
	return fmt::format("{}{}={}", escape(property.name), type, value_text(property));
}

std::string object_line(const Object &object, bool types)
{
	std::string line;
	for (const auto &[name, value] : object.id)
		line += fmt::format("{}{}={}", line.empty() ? "" : "\t", escape(name), escape(value));
	for (const Property &property : object.props)
		line += "\t" + property_text(property, types);
	return line;
}

void print_object(const Object &object)
{
	for (const auto &[name, value] : object.id)
		fmt::print("{}={}\n", escape(name), escape(value));
	for (const Property &property : object.props)
		fmt::print("  {}:{}={}\n", escape(property.name), property.type->word, value_text(property));
}

Exit tell_update(const Options &options, const char *done, const Object &object)
{
	if (options.json) {
		Json json = update_answer(done, options.dry_run);
		json["object"] = object_to_json(object);
		write_json(json);
	} else if (options.dry_run) {
		fmt::print("would be {}: {}\n", done, id_text(object.id));
		for (const Property &property : object.props)
			fmt::print("  {}:{}={}\n", visible(property.name), property.type->word, value_text(property));
	}
	return Exit::done;
}

void begin_update(Database &database, const Options &options, Database::Loss loss, Database::Hold hold)
{
	if (options.force && loss == Database::Loss::refused)
		loss = Database::Loss::told;
	database.require_updates(loss, options.dry_run ? Database::Hold::no : hold);
}
