// completion: prints the script that completes commands, options, queries and messages in a shell.

#include "call.h"
#include "commands/queries.h"

#include <CLI/CLI.hpp>

namespace
{

std::string options_of(const CLI::App &sub)
{
    std::string words;
    for (const CLI::Option *option : sub.get_options())
        for (const std::string &name : option->get_lnames())
            words += "--" + name + " ";
    return words;
}

/// What may stand where the command takes a word.
std::string words_of(const std::string &command)
{
    std::string words;
    if (command == "query")
        for (const Query &query : queries())
            words += query.name + std::string(" ");
    if (command == "post")
        for (const CatalogueMessage &message : catalogue())
            if (is_assigned(message))
                words += message.name + std::string(" ");
    return command == "completion" ? "bash" : words;
}

std::string bash_script(const CLI::App &app)
{
    std::string commands, cases;
    for (const CLI::App *sub :
         app.get_subcommands([](const CLI::App *one) { return !one->get_name().empty(); })) {
        commands += sub->get_name() + " ";
        cases += "        " + sub->get_name() + ") options=\"" + options_of(*sub) + "\" words=\"" +
                 words_of(sub->get_name()) + "\" ;;\n";
    }
    return "_qel_host()\n{\n"
           "    local word=\"${COMP_WORDS[COMP_CWORD]}\" command= i options words\n"
           "    local commands=\"" +
           commands +
           "\"\n"
           "    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
           "        [[ \" $commands \" == *\" ${COMP_WORDS[i]} \"* ]] && command=\"${COMP_WORDS[i]}\" && "
           "break\n"
           "    done\n"
           "    case \"$command\" in\n" +
           cases + "        *) options=\"" + options_of(app) +
           "\" words=\"$commands\" ;;\n"
           "    esac\n"
           "    [[ \"$word\" == -* ]] && words=\"$options\"\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$word\"))\n"
           "    [[ -n \"$words\" ]] || COMPREPLY=($(compgen -f -- \"$word\"))\n"
           "}\n"
           "complete -o filenames -F _qel_host qel-host";
}

} // namespace

void add_completion(CLI::App &app, Command &command)
{
    auto shell = std::make_shared<std::string>();
    CLI::App *sub = app.add_subcommand("completion", "Print the script that completes words in a shell");
    sub->add_option("shell", *shell, "bash")->required()->check(CLI::IsMember({"bash"}));
    sub->footer("For this shell: eval \"$(qel-host completion bash)\"\n");
    sub->callback([&app, &command, shell] {
        command = {.name = "completion", .has_link = false};
        command.run = [&app](Session &, Outcome &outcome) { outcome.answer = bash_script(app); };
    });
}
