#include "apps/volr/self_description.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

namespace volr {

namespace {

std::vector<const CLI::App*> Verbs(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* verb) { return !verb->get_group().empty(); });
}

// "--view" for an option, "INPUT" for what has no dashes.
std::string LongName(const CLI::Option& option) {
    return option.get_lnames().empty() ? option.get_name(true) : "--" + option.get_lnames().front();
}

// The values that an option accepts, when it lists them.
std::string Choices(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::size_t from = type.find('{');
    const std::size_t to = type.find('}', from);
    if (from == std::string::npos || to == std::string::npos) {
        return "";
    }
    std::string choices = type.substr(from + 1, to - from - 1);
    std::replace(choices.begin(), choices.end(), ',', ' ');
    return choices;
}

// Text that the man format takes literally.
std::string Roff(const std::string& text) {
    std::string escaped;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((text[i] == '.' || text[i] == '\'') && (i == 0 || text[i - 1] == '\n')) {
            escaped += "\\&";
        }
        escaped += text[i] == '\\' ? "\\e" : text[i] == '-' ? "\\-" : std::string(1, text[i]);
    }
    return escaped;
}

std::string OptionEntry(const CLI::Option& option) {
    const std::string choices = Choices(option);
    std::string entry = ".TP\n.B " + Roff(option.get_name(false, true)) + "\n" + Roff(option.get_description());
    if (!choices.empty()) {
        entry += Roff(": " + choices);
    }
    if (!option.get_default_str().empty()) {
        entry += Roff(" (default " + option.get_default_str() + ")");
    }
    return entry + "\n";
}

}  // namespace

std::string CompletionScript(const CLI::App& app) {
    std::string verbs;
    std::string cases;
    std::map<std::string, std::string> values;
    for (const CLI::App* verb : Verbs(app)) {
        verbs += (verbs.empty() ? "" : " ") + verb->get_name();
        std::string names;
        for (const CLI::Option* option : verb->get_options()) {
            if (option->nonpositional()) {
                names += " " + LongName(*option);
                if (const std::string choices = Choices(*option); !choices.empty()) {
                    values[LongName(*option)] = choices;
                }
            }
        }
        cases += "        " + verb->get_name() + ") words=\"" + names.substr(std::min<std::size_t>(1, names.size())) +
                 "\" ;;\n";
    }
    std::string value_cases;
    for (const auto& [name, choices] : values) {
        value_cases.append("        ").append(name).append(") COMPREPLY=($(compgen -W \"");
        value_cases.append(choices).append("\" -- \"$current\")); return ;;\n");
    }
    return "# Completion of volr: source this file from bash, or from zsh after autoload bashcompinit && "
           "bashcompinit.\n"
           "_volr() {\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} words=\"" +
           verbs +
           " --help --version\"\n"
           "    case $previous in\n" +
           value_cases +
           "    esac\n"
           "    [ \"$COMP_CWORD\" -gt 1 ] && case ${COMP_WORDS[1]} in\n" +
           cases +
           "    esac\n"
           "    if [ \"$COMP_CWORD\" -gt 1 ] && [[ $current != -* ]]; then\n"
           "        COMPREPLY=($(compgen -f -- \"$current\"))\n"
           "    else\n"
           "        COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
           "    fi\n"
           "}\n"
           "complete -o filenames -F _volr volr\n";
}

std::string ManPage(const CLI::App& app, const std::string& version) {
    std::string page = ".TH VOLR 1 \"\" \"volr " + version +
                       "\" \"User commands\"\n.SH NAME\nvolr \\- pictures of medical image stacks\n"
                       ".SH SYNOPSIS\n.B volr\n.I VERB INPUT\n[\\fIoptions\\fR]\n.SH DESCRIPTION\n" +
                       Roff(app.get_description()) +
                       "\nPositions are patient millimetres, LPS: x to the left, y to the back, z to the head.\n";
    for (const CLI::App* verb : Verbs(app)) {
        page += ".SH " + Roff("volr " + verb->get_name()) + "\n" + Roff(verb->get_description()) + "\n";
        for (const CLI::Option* option : verb->get_options()) {
            page += OptionEntry(*option);
        }
        page += ".PP\n.nf\n" + Roff(verb->get_footer()) + "\n.fi\n";
    }
    return page + ".SH EXIT STATUS\n0 done; 1 the work failed; 2 wrong usage or unreadable input; 130 cancelled.\n";
}

}  // namespace volr
