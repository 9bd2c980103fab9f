// ostrel completion: scripts for shells, made from the same declarations as the command line itself.
#include <fmt/format.h>

#include "command.h"

namespace {

void declare(CLI::App &app, Options &options)
{
	app.add_option("SHELL", options.other, "bash, zsh or fish")
	    ->required()
	    ->check(CLI::IsMember({"bash", "zsh", "fish"}));
}

struct Word {
	std::string text;
	std::string help;
};

// The options of a command; with their short and long forms as words of their own.
std::vector<Word> option_words(const CLI::App &app)
{
	std::vector<Word> words;
	for (const CLI::Option *option : app.get_options()) {
		for (const std::string &name : option->get_snames())
			words.push_back({"-" + name, option->get_description()});
		for (const std::string &name : option->get_lnames())
			words.push_back({"--" + name, option->get_description()});
	}
	return words;
}

// What stands at the first place behind the command: databases and other files, or shells, or nothing.
bool takes_files(const CLI::App &app)
{
	for (const CLI::Option *option : app.get_options())
		if (option->get_positional() && option->get_name(true, false) != "SHELL")
			return true;
	return false;
}

std::string joined(const std::vector<Word> &words)
{
	std::string text;
	for (const Word &word : words)
		text += (text.empty() ? "" : " ") + word.text;
	return text;
}

std::vector<Word> command_words()
{
	std::vector<Word> words;
	for (const Command *const *row = commands; *row != nullptr; row++)
		for (const char *name : {(*row)->name, (*row)->alias})
			if (name != nullptr)
				words.push_back({name, (*row)->summary});
	return words;
}

std::string patterns(const Command &command)
{
	return command.alias == nullptr ? command.name : fmt::format("{}|{}", command.name, command.alias);
}

const CLI::App &declared(const CLI::App &app, const Command &command)
{
	return *app.get_subcommand(command.name);
}

// What the tool lists is quoted and compared, never expanded: `compgen -W` would run what stands in `$(...)`.
//
// Back ends stand before a path: `file:` and `raw:` are cut off for the search of files, and bash, which takes a
// colon for the end of a word, completes what stands behind it.
constexpr const char *bash_frame = R"bash(# bash completion for ostrel
_ostrel() {{
	local cur=${{COMP_WORDS[COMP_CWORD]}} prev= command= i name options= files=
	((COMP_CWORD > 0)) && prev=${{COMP_WORDS[COMP_CWORD - 1]}}
	COMPREPLY=()
	for ((i = 1; i < COMP_CWORD; i++)); do
		case ${{COMP_WORDS[i]}} in
		-*) ;;
		*)
			command=${{COMP_WORDS[i]}}
			break
			;;
		esac
	done
	case $prev in
	-E | --enclave | --to-enclave | --other-enclave)
		while IFS= read -r name; do
			printf -v name %q "$name"
			[[ $name == "$cur"* ]] && COMPREPLY+=("$name")
		done < <(ostrel enclaves 2>/dev/null | cut -f2)
		return
		;;
	-s | --sort | -p | --prop) return ;;
	esac
	case $command in
	"")
		COMPREPLY=($(compgen -W "{commands} --json --help --version" -- "$cur"))
		return
		;;
{cases}	esac
	if [[ $cur == -* ]]; then
		COMPREPLY=($(compgen -W "$options" -- "$cur"))
	elif [[ $command == completion ]]; then
		COMPREPLY=($(compgen -W "bash zsh fish" -- "$cur"))
	elif [[ -n $files ]]; then
		compopt -o filenames 2>/dev/null
		[[ $cur == : ]] && cur=
		mapfile -t COMPREPLY < <(compgen -f -- "$cur")
	fi
}}
complete -F _ostrel ostrel
)bash";

std::string bash_script(const CLI::App &app)
{
	std::string cases;
	for (const Command *const *row = commands; *row != nullptr; row++)
		cases += fmt::format("\t{}) options=\"{}\" files={} ;;\n", patterns(**row),
		    joined(option_words(declared(app, **row))), takes_files(declared(app, **row)) ? "yes" : "");
	return fmt::format(bash_frame, fmt::arg("commands", joined(command_words())), fmt::arg("cases", cases));
}

// Texts in single quotes of zsh and fish.
std::string quoted(const std::string &text, const char *special)
{
	std::string out;
	for (char byte : text) {
		if (byte == '\'')
			out += "'\\'";
		else if (std::string_view(special).find(byte) != std::string_view::npos)
			out += '\\';
		out += byte;
	}
	return out;
}

std::string zsh_arguments(const CLI::App &app)
{
	std::string out;
	for (const Word &word : option_words(app))
		out += fmt::format(" '{}[{}]'", word.text, quoted(word.help, "[]:"));
	if (takes_files(app))
		out += " '*:database:_files'";
	return out;
}

std::string zsh_script(const CLI::App &app)
{
	std::string names, cases;
	for (const Word &word : command_words())
		names += fmt::format("\t\t'{}:{}'\n", word.text, quoted(word.help, ":"));
	for (const Command *const *row = commands; *row != nullptr; row++)
		cases += fmt::format("\t{}) _arguments{} ;;\n", patterns(**row), zsh_arguments(declared(app, **row)));
	return fmt::format("#compdef ostrel\n_ostrel() {{\n\tlocal -a names\n\tnames=(\n{}\t)\n"
			   "\tif ((CURRENT == 2)); then\n\t\t_describe command names\n\t\treturn\n\tfi\n"
			   "\tshift words\n\t((CURRENT--))\n\tcase $words[1] in\n{}\tesac\n}}\n"
			   "compdef _ostrel ostrel\n",
	    names, cases);
}

std::string fish_script(const CLI::App &app)
{
	std::string out = "# fish completion for ostrel\n";
	for (const Word &word : command_words())
		out += fmt::format("complete -c ostrel -n __fish_use_subcommand -f -a {} -d '{}'\n", word.text,
		    quoted(word.help, "\\"));
	for (const Command *const *row = commands; *row != nullptr; row++)
		for (const Word &word : option_words(declared(app, **row)))
			out +=
			    fmt::format("complete -c ostrel -n '__fish_seen_subcommand_from {}{}{}' -{} {} -d '{}'\n",
				(*row)->name, (*row)->alias == nullptr ? "" : " ",
				(*row)->alias == nullptr ? "" : (*row)->alias, word.text.starts_with("--") ? "l" : "s",
				word.text.substr(word.text.find_first_not_of('-')), quoted(word.help, "\\"));
	return out;
}

constexpr struct {
	const char *shell;
	std::string (*script)(const CLI::App &app);
} shells[] = {{"bash", bash_script}, {"zsh", zsh_script}, {"fish", fish_script}};

Exit run(const Options &options)
{
	CLI::App app;
	Options unused;
	declare_all(app, unused);
	for (const auto &row : shells)
		if (options.other == row.shell)
			fmt::print("{}", row.script(app));
	return Exit::done;
}

} // namespace

const Command completion_command = {
    "completion", nullptr, "Print a completion script for a shell", declare, run, nullptr};
