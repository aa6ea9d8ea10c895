// catalogue: prints the messages of the link and their fields, for people, for programs, for the dissector
// and for the wire document.

#include "call.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <CLI/CLI.hpp>

namespace
{

Json message_entry(const CatalogueMessage &message)
{
    Json fields = Json::array();
    for (const CatalogueField &field : message.fields)
        fields.push_back({{"name", field.name},
                          {"offset", field.offset},
                          {"size", field.size},
                          {"kind", kind_name(field.kind)}});
    return {{"type", message.type},
            {"name", message.name},
            {"sequenced", qel_sysmsg_has_sequence(message.type) != 0},
            {"size", message.size == 0 ? Json() : Json(message.size)},
            {"fields", fields}};
}

void run_catalogue(Outcome &outcome, const std::string &form)
{
    Json messages = Json::array();
    for (const CatalogueMessage &message : catalogue())
        messages.push_back(message_entry(message));
    outcome.result = {{"messages", messages}};
    outcome.answer = form == "lua"        ? catalogue_as_lua()
                     : form == "markdown" ? catalogue_as_markdown()
                                          : catalogue_as_text();
    outcome.answer.pop_back(); // the last line gets its end when it is printed
}

} // namespace

void add_catalogue(CLI::App &app, Command &command)
{
    auto form = std::make_shared<std::string>();
    CLI::App *sub = app.add_subcommand("catalogue", "Print the messages of the link and their fields");
    sub->add_flag("--lua{lua}", *form, "as the table in host/wireshark/qel_link.lua");
    sub->add_flag("--markdown{markdown}", *form, "as the table in docs/host-link.md");
    sub->callback([=, &command] {
        command = {.name = "catalogue", .has_link = false};
        command.run = [=](Session &, Outcome &outcome) { run_catalogue(outcome, *form); };
    });
}
