// Completion scripts. Divisions: what the command line declares, bash, zsh, fish.
//
// Whatever a tool lists, such as names of enclaves or services, may hold anything that a shell obeys. The scripts compare
// and quote it, and never expand it: `compgen -W` would run what stands in `$(...)`.
#include "completion.h"

#include <algorithm>

#include <fmt/format.h>

namespace {

using Names = std::vector<std::string>;

// ---- What the command line declares ----

struct Word {
	std::string text;
	std::string help;
	std::string argument; // the name of the option's value; empty for a flag
};

// The options of a command, with their short and long forms as words of their own.
std::vector<Word> option_words(const CLI::App &app)
{
	std::vector<Word> words;
	for (const CLI::Option *option : app.get_options()) {
		const std::string argument = option->get_items_expected_max() > 0 ? option->get_type_name() : "";
		for (const std::string &name : option->get_snames())
			words.push_back({"-" + name, option->get_description(), argument});
		for (const std::string &name : option->get_lnames())
			words.push_back({"--" + name, option->get_description(), argument});
	}
	return words;
}

// Arguments that are files.
constexpr const char *file_arguments[] = {"DB", "OTHER", "TO", "FILE", "PATH", "DIR"};

bool is_file(const std::string &argument)
{
	return std::find(std::begin(file_arguments), std::end(file_arguments), argument) != std::end(file_arguments);
}

bool is_known(const std::string &argument, const Program &program)
{
	return argument == "SHELL" || is_file(argument) ||
	       std::any_of(program.completers.begin(), program.completers.end(),
		   [&](const Completer &row) { return argument == row.argument; });
}

// What the words after a command are: its first argument that can be completed. Empty if there is none.
std::string argument_of(const CLI::App &app, const Program &program)
{
	for (const CLI::Option *option : app.get_options())
		if (option->get_positional() && is_known(option->get_name(true, false), program))
			return option->get_name(true, false);
	return "";
}

Names names_of(const CommandText &text)
{
	Names names = {text.name};
	names.insert(names.end(), text.aliases.begin(), text.aliases.end());
	return names;
}

std::vector<Word> command_words(const Program &program)
{
	std::vector<Word> words;
	for (const BoundCommand &command : program.commands)
		for (const std::string &name : names_of(*command.text))
			words.push_back({name, command.text->summary, ""});
	return words;
}

const CLI::App &declared(const CLI::App &app, const BoundCommand &command)
{
	return *app.get_subcommand(command.text->name);
}

std::string joined(const std::vector<Word> &words)
{
	std::string text;
	for (const Word &word : words)
		text += (text.empty() ? "" : " ") + word.text;
	return text;
}

// Puts values in the place of the marks of a script.
std::string filled(std::string text, std::initializer_list<std::pair<const char *, std::string>> values)
{
	for (const auto &[mark, value] : values)
		for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += value.size())
			text.replace(at, std::string_view(mark).size(), value);
	return text;
}

// ---- bash ----

// A colon ends a word for bash: what stands before it is joined for the comparison, and is no part of what takes the word's
// place. Kinds of databases and an equals sign before a path are cut off in the same way.
constexpr const char *bash_frame = R"bash(# bash completion for @TOOL@
_@TOOL@_lines()
{
	local at=$COMP_CWORD word=${COMP_WORDS[COMP_CWORD]} line
	while ((at > 1)) && [[ ${COMP_WORDS[at]} == :* || ${COMP_WORDS[at - 1]} == :* ]]; do
		((at--))
		word=${COMP_WORDS[at]}$word
	done
	local before=${word%"${word##*:}"}
	while IFS= read -r line; do
		printf -v line %q "$line"
		[[ $line == "$word"* ]] && COMPREPLY+=("${line#"$before"}")
	done
}
_@TOOL@_argument()
{
	local argument=$1 word=${COMP_WORDS[COMP_CWORD]}
	shift
	[[ $word == : || $word == = ]] && word=
	case $argument in
@COMPLETERS@	SHELL) mapfile -t COMPREPLY < <(compgen -W "bash zsh fish" -- "$word") ;;
	@FILES@)
		compopt -o filenames 2>/dev/null
		mapfile -t COMPREPLY < <(compgen -f -- "$word")
		;;
	esac
}
_@TOOL@()
{
	local word=${COMP_WORDS[COMP_CWORD]} command="" argument="" i
	local options="@OPTIONS@" values=" @VALUES@ "
	local common=$values
	local -a before=()
	COMPREPLY=()
	for ((i = 1; i < COMP_CWORD; i++)); do
		local seen=${COMP_WORDS[i]}
		if [[ $seen == -* && $values == *" $seen="* ]]; then
			local value=${values#*" $seen="}
			[[ ${COMP_WORDS[i + 1]} == = ]] && ((i++))
			if ((++i >= COMP_CWORD)); then
				_@TOOL@_argument "${value%% *}" "${before[@]}"
				return
			fi
			[[ $common == *" $seen="* ]] && before+=("$seen" "${COMP_WORDS[i]}")
		elif [[ $seen != -* && -z $command ]]; then
			command=$seen
			case $command in
@COMMANDS@			esac
		fi
	done
	if [[ -z $command && $word != -* ]]; then
		mapfile -t COMPREPLY < <(compgen -W "@NAMES@" -- "$word")
	elif [[ $word == -* ]]; then
		mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
	else
		_@TOOL@_argument "$argument" "${before[@]}"
	fi
}
complete -F _@TOOL@ @TOOL@
)bash";

// Options with a value, each as `--option=ARGUMENT`.
std::string bash_values(const CLI::App &app)
{
	std::string text;
	for (const Word &word : option_words(app))
		if (!word.argument.empty())
			text += fmt::format("{}{}={}", text.empty() ? "" : " ", word.text, word.argument);
	return text;
}

std::string bash_script(const Program &program, const CLI::App &app)
{
	std::string completers, commands;
	for (const Completer &row : program.completers)
		completers += fmt::format(
		    "\t'{}') _{}_lines < <({{ {}; }} 2>/dev/null) ;;\n", row.argument, program_name, row.lines);
	for (const BoundCommand &command : program.commands) {
		const CLI::App &sub = declared(app, command);
		commands += fmt::format("\t\t\t{}) options=\"{}\" values=\" {} \" argument='{}' ;;\n",
		    fmt::join(names_of(*command.text), " | "), joined(option_words(sub)), bash_values(sub),
		    argument_of(sub, program));
	}
	return filled(bash_frame, {{"@TOOL@", program_name}, {"@COMPLETERS@", completers},
				      {"@FILES@", fmt::format("{}", fmt::join(file_arguments, " | "))},
				      {"@OPTIONS@", joined(option_words(app))}, {"@VALUES@", bash_values(app)},
				      {"@COMMANDS@", commands}, {"@NAMES@", joined(command_words(program))}});
}

// ---- zsh ----

// A text in single quotes of zsh and fish.
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

std::string zsh_action(const std::string &argument, const Program &program)
{
	for (const Completer &row : program.completers)
		if (argument == row.argument)
			return fmt::format("_{}_{}", program_name, &row - program.completers.data());
	return argument == "SHELL" ? "(bash zsh fish)" : is_file(argument) ? "_files" : "";
}

std::string zsh_arguments(const CLI::App &app, const Program &program)
{
	std::string out;
	for (const Word &word : option_words(app))
		out += fmt::format(" '{}[{}]{}'", word.text, quoted(word.help, "[]:"),
		    word.argument.empty() ? ""
					  : fmt::format(":{}:{}", word.argument, zsh_action(word.argument, program)));
	return out;
}

constexpr const char *zsh_frame = R"zsh(#compdef @TOOL@
@COMPLETERS@_@TOOL@() {
	local -a names
	local context state line
	typeset -A opt_args
	names=(
@NAMES@	)
	_arguments -C@OPTIONS@ '1:command:->command' '*::argument:->argument'
	case $state in
	command) _describe command names ;;
	argument)
		case $words[1] in
@COMMANDS@		esac
		;;
	esac
}
compdef _@TOOL@ @TOOL@
)zsh";

std::string zsh_script(const Program &program, const CLI::App &app)
{
	std::string completers, names, commands;
	for (const Completer &row : program.completers)
		completers +=
		    fmt::format("_{}_{}() {{\n\tlocal -a lines\n\tlines=(${{(f)\"$({{ {}; }} 2>/dev/null)\"}})\n"
				"\tcompadd -a lines\n}}\n",
			program_name, &row - program.completers.data(), row.lines);
	for (const Word &word : command_words(program))
		names += fmt::format("\t\t'{}:{}'\n", word.text, quoted(word.help, ":"));
	for (const BoundCommand &command : program.commands) {
		const CLI::App &sub = declared(app, command);
		const std::string argument = argument_of(sub, program);
		commands += fmt::format("\t\t{}) _arguments{}{} ;;\n", fmt::join(names_of(*command.text), "|"),
		    zsh_arguments(sub, program),
		    argument.empty() ? "" : fmt::format(" '*:{}:{}'", argument, zsh_action(argument, program)));
	}
	return filled(zsh_frame, {{"@TOOL@", program_name}, {"@COMPLETERS@", completers}, {"@NAMES@", names},
				     {"@OPTIONS@", zsh_arguments(app, program)}, {"@COMMANDS@", commands}});
}

// ---- fish ----

std::string fish_option(const Word &word)
{
	const bool is_long = word.text.starts_with("--");
	return fmt::format("-{} {}{} -d '{}'\n", is_long ? "l" : "s", word.text.substr(is_long ? 2 : 1),
	    word.argument.empty()    ? ""
	    : is_file(word.argument) ? " -r"
				     : " -x",
	    quoted(word.help, "\\"));
}

std::string fish_script(const Program &program, const CLI::App &app)
{
	const std::string begin = fmt::format("complete -c {} -n ", program_name);
	std::string out = fmt::format("# fish completion for {}\n", program_name);
	for (const Word &word : option_words(app))
		out += begin + "__fish_use_subcommand " + fish_option(word);
	for (const Word &word : command_words(program))
		out += fmt::format(
		    "{}__fish_use_subcommand -f -a {} -d '{}'\n", begin, word.text, quoted(word.help, "\\"));
	for (const BoundCommand &command : program.commands)
		for (const Word &word : option_words(declared(app, command)))
			out += fmt::format("{}'__fish_seen_subcommand_from {}' {}", begin,
			    fmt::join(names_of(*command.text), " "), fish_option(word));
	return out;
}

constexpr struct {
	const char *shell;
	std::string (*script)(const Program &program, const CLI::App &app);
} shells[] = {{"bash", bash_script}, {"zsh", zsh_script}, {"fish", fish_script}};

} // namespace

std::string completion_script(const std::string &shell, const Program &program, const CLI::App &app)
{
	for (const auto &row : shells)
		if (shell == row.shell)
			return row.script(program, app);
	return "";
}
