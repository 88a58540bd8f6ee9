#include "zentra/command/completion.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace zentra {
namespace {

using Kind = Taken::Kind;

// The text with a backslash, or what `in_front` says, before each of these signs.
std::string escaped(std::string_view text, std::string_view signs, std::string_view in_front) {
  std::string result;
  for (const char c : text) {
    if (signs.find(c) != signs.npos) result += in_front;
    result += c;
  }
  return result;
}

std::string in_quotes(std::string_view text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + '\'';
}

std::vector<std::string> names_of(const std::vector<Taken>& taken) {
  std::vector<std::string> names;
  for (const Taken& one : taken) names.insert(names.end(), one.names.begin(), one.names.end());
  return names;
}

std::vector<std::string> names_of(const std::vector<CommandWords>& commands) {
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const CommandWords& command : commands) names.push_back(command.name);
  return names;
}

// ---- bash.

// What the function `_zentra_KIND` of the script completes.
std::string bash_kind(const Taken& taken) {
  switch (taken.kind) {
    case Kind::kPair:
      return "pair";
    case Kind::kFile:
      return "file";
    case Kind::kWord:
      return fmt::format("word {}", fmt::join(taken.words, " "));
    default:
      return "nothing";
  }
}

constexpr char kBashBegin[] =
    R"(# bash completion for zentra                              -*- shell-script -*-

_zentra_nothing() { :; }
_zentra_word() { mapfile -t COMPREPLY < <(compgen -W "$*" -- "$word"); }
# A newline may be part of a name: then lines are no files, and the shell finds those itself.
_zentra_names() {
  local name
  compopt -o filenames 2>/dev/null
  for name in "${COMPREPLY[@]}"; do
    if [[ -e $name || -L $name || $name == '~'* ]]; then continue; fi
    COMPREPLY=()
    for name in "${word//\\/}"*; do
      if [[ -d $name || $name == *"$1" ]]; then COMPREPLY+=("$name"); fi
    done
    return
  done
}
_zentra_file() {
  mapfile -t COMPREPLY < <(compgen -f -- "$word")
  _zentra_names ''
}
_zentra_pair() {
  mapfile -t COMPREPLY < <(compgen -d -- "$word"; compgen -f -X '!*.idx' -- "$word")
  _zentra_names .idx
}

# The word under way: the value of the option before it, an option, or a word by its place.
_zentra() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]}
  local command='' options='' valued='' places=() place=0 i
  COMPREPLY=()
  # --option=value comes as three words.
  if [[ $word == '=' ]]; then
    word=''
  elif [[ $before == '=' && COMP_CWORD -gt 1 ]]; then
    before=${COMP_WORDS[COMP_CWORD-2]}
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if [[ ${COMP_WORDS[i]} != -* ]]; then
      command=${COMP_WORDS[i]}
      break
    fi
  done
)";

constexpr char kBashEnd[] = R"(  if [[ $word == -* ]]; then
    _zentra_word "$options"
    return
  fi
  for ((++i; i < COMP_CWORD; ++i)); do
    if [[ ${COMP_WORDS[i]} == -* ]]; then continue; fi
    if [[ " = $valued " == *" ${COMP_WORDS[i-1]} "* ]]; then continue; fi
    ((++place))
  done
  if ((place >= ${#places[@]})); then place=$((${#places[@]} - 1)); fi
  if ((place >= 0)); then
    # shellcheck disable=SC2086  # a kind, and the words that it has
    _zentra_${places[place]}
  fi
}
complete -F _zentra zentra
)";

std::string bash_command(const CommandWords& command) {
  std::vector<std::string> valued;
  std::string values;
  std::string places;
  bool repeats = false;
  for (const Taken& one : command.taken) {
    if (one.names.empty()) {
      places += ' ' + in_quotes(bash_kind(one));
      repeats = one.repeats;
    } else if (one.kind != Kind::kNothing) {
      valued.insert(valued.end(), one.names.begin(), one.names.end());
      values += fmt::format("        {}) _zentra_{}; return ;;\n", fmt::join(one.names, " | "),
                            bash_kind(one));
    }
  }
  if (!repeats) places += " nothing";
  return fmt::format(
      "    {})\n      options='{}' valued='{}' places=({})\n      case $before in\n{}      esac\n"
      "      ;;\n",
      command.name, fmt::join(names_of(command.taken), " "), fmt::join(valued, " "),
      places.substr(1), values);
}

std::string for_bash(const std::vector<Taken>& options, const std::vector<CommandWords>& commands) {
  std::string script = kBashBegin;
  script += fmt::format(
      "  case $command in\n    '')\n      _zentra_word '{} {}'\n      return\n      ;;\n",
      fmt::join(names_of(options), " "), fmt::join(names_of(commands), " "));
  for (const CommandWords& command : commands) script += bash_command(command);
  return script + "    *) return ;;\n  esac\n" + kBashEnd;
}

// ---- zsh.

std::string zsh_action(const Taken& taken) {
  switch (taken.kind) {
    case Kind::kPair:
      return "pair:_files -g \"*.idx\"";
    case Kind::kFile:
      return "file:_files";
    case Kind::kWord:
      return fmt::format("word:({})", fmt::join(taken.words, " "));
    default:
      return "value:";
  }
}

// What the function _arguments takes.
std::string zsh_arguments(const std::vector<Taken>& taken) {
  std::string text;
  for (const Taken& one : taken) {
    const std::string help = escaped(one.help, "[]:\\", "\\");
    if (one.names.empty()) {
      text += " \\\n        " + in_quotes((one.repeats ? "*:" : ":") + zsh_action(one));
    }
    for (const std::string& name : one.names) {
      const std::string value = one.kind == Kind::kNothing ? "" : ':' + zsh_action(one);
      text += " \\\n        " + in_quotes(fmt::format("{}[{}]{}", name, help, value));
    }
  }
  return text;
}

std::string for_zsh(const std::vector<Taken>& options, const std::vector<CommandWords>& commands) {
  std::string described;
  std::string cases;
  for (const CommandWords& command : commands) {
    described +=
        fmt::format("\n    {}", in_quotes(command.name + ':' + escaped(command.help, ":\\", "\\")));
    cases += fmt::format("    {})\n      _arguments{}\n      ;;\n", command.name,
                         zsh_arguments(command.taken));
  }
  return fmt::format(R"(#compdef zentra

_zentra() {{
  local context state state_descr line
  typeset -A opt_args
  local -a commands
  commands=({}
  )
  _arguments -C{} \
        ':subcommand:->command' '*::argument:->argument'
  if [[ $state == command ]]; then
    _describe subcommand commands
    return
  fi
  [[ $state == argument ]] || return
  case $words[1] in
{}  esac
}}

_zentra "$@"
)",
                     described, zsh_arguments(options), cases);
}

// ---- fish.

std::string fish_option(const std::string& condition, const Taken& taken) {
  std::string line = fmt::format("complete -c zentra -n {}", in_quotes(condition));
  for (const std::string& name : taken.names) {
    line += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
  }
  switch (taken.kind) {
    case Kind::kNothing:
      break;
    case Kind::kPair:
      line += " -x -a '(__fish_complete_suffix .idx)'";
      break;
    case Kind::kFile:
      line += " -r -F";
      break;
    case Kind::kWord:
      line += fmt::format(" -x -a {}", in_quotes(fmt::format("{}", fmt::join(taken.words, " "))));
      break;
    case Kind::kAnything:
      line += taken.names.empty() ? "" : " -x";
      break;
  }
  return taken.help.empty() ? line + '\n'
                            : line + " -d " + in_quotes(escaped(taken.help, "\\", "\\")) + '\n';
}

constexpr char kFishBegin[] = R"(# fish completion for zentra

# Whether the word under way stands at a place behind a subcommand, of which some options take a value.
function __zentra_at --argument-names subcommand comparison wanted
    set -l place 0
    set -l seen
    set -l before
    for word in (commandline -opc)[2..-1]
        if string match -q -- '-*' $word
        else if test -z "$seen"
            set seen $word
        else if not contains -- "$before" $argv[4..-1]
            set place (math $place + 1)
        end
        set before $word
    end
    test "$seen" = $subcommand; and test $place $comparison $wanted
end

complete -c zentra -f
)";

// When an argument without a name is due.
std::string fish_place(const CommandWords& command, int place, bool repeats) {
  std::string condition =
      fmt::format("__zentra_at {} {} {}", command.name, repeats ? "-ge" : "-eq", place);
  for (const Taken& one : command.taken) {
    const bool has_value = !one.names.empty() && one.kind != Kind::kNothing;
    if (has_value) condition += fmt::format(" {}", fmt::join(one.names, " "));
  }
  return condition;
}

std::string for_fish(const std::vector<Taken>& options, const std::vector<CommandWords>& commands) {
  std::string script = kFishBegin;
  for (const Taken& one : options) script += fish_option("__fish_use_subcommand", one);
  for (const CommandWords& command : commands) {
    script += fmt::format("\ncomplete -c zentra -n __fish_use_subcommand -a {} -d {}\n",
                          command.name, in_quotes(command.help));
    int place = 0;
    for (const Taken& one : command.taken) {
      if (!one.names.empty()) {
        script += fish_option("__fish_seen_subcommand_from " + command.name, one);
      } else if (const int at = place++; one.kind != Kind::kAnything) {
        script += fish_option(fish_place(command, at, one.repeats), one);
      }
    }
  }
  return script;
}

}  // namespace

std::string completion(std::string_view shell, const std::vector<Taken>& options,
                       const std::vector<CommandWords>& commands) {
  if (shell == "bash") return for_bash(options, commands);
  if (shell == "zsh") return for_zsh(options, commands);
  if (shell == "fish") return for_fish(options, commands);
  return "";
}

}  // namespace zentra
