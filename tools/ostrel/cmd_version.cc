// ostrel version.
#include <fmt/format.h>

#include "command.h"
#include "document.h"

namespace {

void declare(CLI::App &, Options &) {}

Exit run(const Options &options)
{
	if (options.json)
		write_json(Json{{"version", OSTREL_TOOL_VERSION}});
	else
		fmt::print("ostrel {}\n", OSTREL_TOOL_VERSION);
	return Exit::done;
}

} // namespace

const Command version_command = {"version", nullptr, "Print the version", declare, run, nullptr};
