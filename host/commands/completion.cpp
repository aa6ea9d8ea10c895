// completion: prints the script that completes commands, options, queries and messages in a shell.

#include "call.h"

#include <CLI/CLI.hpp>

namespace
{

std::string options_of(const CLI::App &sub)
{
    std::string words;
    for (const CLI::Option *option :
         sub.get_options([](const CLI::Option *one) { return !one->get_group().empty(); }))
        for (const std::string &name : option->get_lnames())
            words += "--" + name + " ";
    return words;
}

/// What may stand where the command takes a word.
std::string words_of(const std::string &command)
{
    std::string words;
    if (command == "query")
        for (const std::string &name : query_names())
            words += name + " ";
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
    return R"(_qel_host()
{
    local word="${COMP_WORDS[COMP_CWORD]}" command= i options words
    local commands=")" +
           commands + R"("
    for ((i = 1; i < COMP_CWORD; ++i)); do
        [[ " $commands " == *" ${COMP_WORDS[i]} "* ]] && command="${COMP_WORDS[i]}" && break
    done
    case "$command" in
)" + cases +
           R"(        *) options=")" + options_of(app) + R"(" words="$commands" ;;
    esac
    [[ "$word" == -* ]] && words="$options"
    COMPREPLY=($(compgen -W "$words" -- "$word"))
    [[ -n "$words" ]] || COMPREPLY=($(compgen -f -- "$word"))
}
complete -o filenames -F _qel_host qel-host)";
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
