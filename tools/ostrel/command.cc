// The table of commands, and what several of them share.
#include "command.h"

#include <charconv>
#include <cstdio>

#include <fmt/format.h>
#include <meridon/enclave.h>

#include "database.h"
#include "document.h"
#include "stores.h"
#include "text.h"

const Command *const commands[] = {
    &walk_command,
    &get_command,
    &put_command,
    &set_command,
    &unset_command,
    &rename_command,
    &remove_command,
    &export_command,
    &import_command,
    &copy_command,
    &diff_command,
    &check_command,
    &convert_command,
    &obsolete_command,
    &serve_command,
    &auth_command,
    &enclaves_command,
    &completion_command,
    &version_command,
    nullptr,
};

void declare_all(CLI::App &app, Options &options)
{
	app.require_subcommand(1);
	app.add_flag("--json", options.json, "Print JSON, errors too");
	app.set_version_flag("--version", "ostrel " OSTREL_TOOL_VERSION, "Print the version");
	app.footer("Exit codes: 0 done, 1 failure, 2 usage, 3 permission, 4 not found, 5 exists, 6 invalid argument,\n"
		   "7 deferred or busy, 8 unsupported, 9 no memory, 10 differences or findings, 11 no connection.\n"
		   "ostrel(1) has the whole story.");
	for (const Command *const *row = commands; *row != nullptr; row++) {
		const Command &command = **row;
		CLI::App *sub = app.add_subcommand(command.name, command.summary);
		if (command.alias != nullptr)
			sub->alias(command.alias);
		if (command.tail != nullptr)
			sub->footer(fmt::format("Behind -- stand {}.", command.tail));
		sub->add_flag("--json", options.json, "Print JSON, errors too");
		command.declare(*sub, options);
	}
}

void declare_database(CLI::App &app, Options &options)
{
	app.add_option("DB", options.database, fmt::format("The database: PATH, {}", database_forms()))->required();
	app.add_option("-E,--enclave", options.enclave, "The enclave in which the database lies")->type_name("NAME|ID");
	app.add_flag("--case", options.case_sensitive, "Compare identifiers with case");
}

void declare_identifiers(CLI::App &app, Options &options)
{
	app.add_option("ID", options.words, "Identifiers: key=value")->type_name("");
}

void declare_dry_run(CLI::App &app, Options &options)
{
	app.add_flag("-n,--dry-run", options.dry_run, "Change nothing; say what would be done");
}

void declare_update(CLI::App &app, Options &options)
{
	declare_dry_run(app, options);
	app.add_flag("--no-wait", options.no_wait, "Don't wait for a store that puts the update off");
	app.add_flag("--force", options.force, "Update a file though comments and lines in another form are lost");
}

int enclave_option(const std::string &text)
{
	if (text.empty())
		return 0;
	enclaveid_t id = 0;
	const char *end = text.data() + text.size();
	auto [stop, bad_number] = std::from_chars(text.data(), end, id);
	bool number = bad_number == std::errc() && stop == end;
	if (number && (id < 0 || id > ENCLAVE_ID_MAX))
		throw Failure(Exit::usage, fmt::format("enclaves have the numbers 1 to {}", ENCLAVE_ID_MAX));
	if (number && (id == 0 || id == getenclaveid()))
		return id;
	enclave_info_t info;
	int error = number ? enclave_registry_get(id, &info) : enclave_registry_find(text.c_str(), &info);
	if (number && error == EBADMSG) // the enclave is there; what is wrong with it shows when it is entered
		return id;
	if (error != 0)
		throw Failure(error == EINVAL ? Exit::not_found : exit_of(ostrel_errno2error(error)),
		    fmt::format("there is no enclave {}", text))
		    .next("ostrel enclaves lists them");
	return info.ei_id;
}

std::unique_ptr<Database> open_database(const Options &options)
{
	return open_database(options.database, enclave_option(options.enclave), options.case_sensitive);
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
		Json json;
		json["result"] = done;
		json["dry_run"] = options.dry_run;
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
