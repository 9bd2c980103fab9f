#include "completion.h"

#include <fmt/format.h>

namespace {

// Locators come out of the repository, where names may hold whatever a shell obeys: they are compared and quoted, and
// nothing expands them. (`compgen -W` would run what stands in `$(...)`.) A colon ends a word for bash, so what stands
// before it is joined for the comparison, and is no part of what takes the word's place.
constexpr const char *bash_script = R"bash(# bash completion for cairnctl
_cairnctl_locators()
{{
	local at=$COMP_CWORD word=${{COMP_WORDS[COMP_CWORD]}} locator
	while ((at > 1)) && [[ ${{COMP_WORDS[at]}} == :* || ${{COMP_WORDS[at - 1]}} == :* ]]; do
		((at--))
		word=${{COMP_WORDS[at]}}$word
	done
	local before=${{word%"${{word##*:}}"}}
	while IFS= read -r locator; do
		printf -v locator %q "$locator"
		[[ $locator == "$word"* ]] && COMPREPLY+=("${{locator#"$before"}}")
	done < <(cairnctl "$@" list 2>/dev/null)
}}
_cairnctl_files()
{{
	local word=${{COMP_WORDS[COMP_CWORD]}}
	[[ $word == : || $word == = ]] && word=
	compopt -o filenames 2>/dev/null
	mapfile -t COMPREPLY < <(compgen -f -- "$word")
}}
_cairnctl()
{{
	local word=${{COMP_WORDS[COMP_CWORD]}} command= i
	local -a hatch=()
	COMPREPLY=()
	for ((i = 1; i < COMP_CWORD; i++)); do
		case ${{COMP_WORDS[i]}} in
		--hatch)
			[[ ${{COMP_WORDS[i + 1]}} == = ]] && ((i++))
			if ((++i >= COMP_CWORD)); then
				_cairnctl_files
				return
			fi
			hatch=(--hatch "${{COMP_WORDS[i]}}")
			;;
		-*) ;;
		*) command=${{command:-${{COMP_WORDS[i]}}}} ;;
		esac
	done
	if [[ $word == -* ]]; then
		mapfile -t COMPREPLY < <(compgen -W "--hatch --json --help --version" -- "$word")
		return
	fi
	case $command in
	"") mapfile -t COMPREPLY < <(compgen -W "{0}" -- "$word") ;;
	add | delete | list | show | snapshot | diff | export) _cairnctl_locators "${{hatch[@]}}" ;;
	import | backup) _cairnctl_files ;;
	completion) mapfile -t COMPREPLY < <(compgen -W "bash zsh fish" -- "$word") ;;
	esac
}}
complete -F _cairnctl cairnctl
)bash";

constexpr const char *zsh_script = R"zsh(#compdef cairnctl
_arguments '--hatch[the hatch of the daemon to ask]:path:_files' '--json[print JSON]' \
	'1:command:({0})' '*::argument:_files'
)zsh";

constexpr const char *fish_script = R"fish(complete -c cairnctl -n __fish_use_subcommand -f -a "{0}"
complete -c cairnctl -l json -d "print JSON"
complete -c cairnctl -l hatch -r -d "the hatch of the daemon to ask"
)fish";

constexpr struct {
	const char *shell;
	const char *script;
} rows[] = {{"bash", bash_script}, {"zsh", zsh_script}, {"fish", fish_script}};

} // namespace

std::string completion_script(const std::string &shell, const std::string &command_words)
{
	for (const auto &row : rows)
		if (shell == row.shell)
			return fmt::format(fmt::runtime(row.script), command_words);
	return {};
}
