// post: sends any message of the catalogue, with fields by name or in order, or any type with its body.

#include "arguments.h"
#include "call.h"
#include "errors.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>

namespace
{

const char *const catalogue_answer = "*"; // the reply that the catalogue has for the message

struct PostOptions {
    std::string message;
    std::vector<std::string> words;
    std::string reply; ///< a message, or catalogue_answer; "" for none
    uint32_t type = 0;
    uint32_t reply_type = 0; ///< 0 for none
    Message built;
};

using Words = std::vector<std::string>;

bool is_list(const CatalogueField &field)
{
    return field.kind == FieldKind::texts || field.kind == FieldKind::ids ||
           field.kind == FieldKind::counters;
}

/// The first field that may still get a value, or null.
const CatalogueField *next_field(const CatalogueMessage &message, const std::map<std::string, Words> &given)
{
    for (const CatalogueField &field : message.fields)
        if (field.kind != FieldKind::count && (is_list(field) || !given.contains(field.name)))
            return &field;
    return nullptr;
}

/// Splits FIELD=VALUE; a word without a name is a value.
void take_word(const CatalogueMessage &message, const std::string &word, std::map<std::string, Words> &given)
{
    const CatalogueField *field = next_field(message, given);
    std::string value = word;
    size_t name_end = word.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789");
    if (name_end != std::string::npos && name_end > 0 && word[name_end] == '=') {
        auto found = std::ranges::find(message.fields, word.substr(0, name_end), &CatalogueField::name);
        field = found == message.fields.end() || found->kind == FieldKind::count ? nullptr : &*found;
        value = word.substr(name_end + 1);
    }
    if (field == nullptr)
        wrong_call(std::string(message.name) + " has no field for \"" + word +
                   "\"; \"qel-host catalogue\" lists them");
    if (given.contains(field->name) && !is_list(*field))
        wrong_call(std::string(field->name) + " is given twice");
    given[field->name].push_back(value);
}

Message build_of_words(const CatalogueMessage &message, const Words &words)
{
    std::map<std::string, Words> given;
    for (const std::string &word : words)
        take_word(message, word, given);
    FieldValues values;
    for (const CatalogueField &field : message.fields) {
        if (field.kind == FieldKind::count)
            continue;
        if (!given.contains(field.name) && !is_list(field))
            wrong_call(std::string(message.name) + " needs its " + field.name);
        values[field.name] = to_field(message, field, given[field.name]);
    }
    return build_message(message.type, values);
}

void check_post(PostOptions &options)
{
    const CatalogueMessage *known = to_message(options.message, options.type);
    const std::string body = "body=";
    if (options.words.size() == 1 && options.words[0].starts_with(body))
        options.built = build_raw(options.type, to_bytes(options.words[0].substr(body.size())));
    else if (known == nullptr || !is_assigned(*known))
        wrong_call(catalogue_name(options.type) + " is not in the catalogue: give body=HEX");
    else
        options.built = build_of_words(*known, options.words);
    if (options.reply == catalogue_answer)
        options.reply_type = known == nullptr ? 0 : known->answer;
    else if (!options.reply.empty())
        to_message(options.reply, options.reply_type);
    if (!options.reply.empty() &&
        (options.reply_type == 0 || options.reply_type == qel_sysmsg_type_confirmed))
        wrong_call("nothing answers " + catalogue_name(options.type) + ": name the reply, as --reply=info");
}

void run_post(Session &session, Outcome &outcome, const PostOptions &options)
{
    Message message = options.built, reply;
    const bool sequenced = qel_sysmsg_has_sequence(options.type) != 0;
    auto report = [&] {
        if (!sequenced || number_of(message) != 0)
            outcome.result = {{"sent", message_json(message)},
                              {"reply", reply.empty() ? Json() : message_json(reply)}};
    };
    try {
        if (options.reply_type != 0)
            reply = session_ask(session, message, options.reply_type);
        else if (sequenced)
            session_require(session, message, catalogue_name(options.type));
        else
            session_send(session, message);
    } catch (const Failure &) {
        report();
        throw;
    }
    report();
    session_poll(session, 0); // a peer that has gone
    if (!reply.empty()) {
        require_fitting(reply);
        outcome.answer = describe_message(reply);
    } else if (!sequenced) {
        throw Failure(fault::unverified,
                      catalogue_name(options.type) +
                          " is sent, but nothing confirms messages of "
                          "this type; ask for what it brings about, or accept that: --unverified-ok");
    }
    outcome.proof = reply.empty() ? "confirmed" : "answered";
}

std::string usage()
{
    std::string lines =
        "Messages and their fields (numbers decimal or 0x, bytes in hexadecimal or as @FILE):\n";
    for (const CatalogueMessage &message : catalogue()) {
        if (!is_assigned(message))
            continue;
        lines += std::string("  ") + message.name;
        for (const CatalogueField &field : message.fields)
            if (field.kind != FieldKind::count)
                lines += std::string(" ") + field.name + (is_list(field) ? "..." : "");
        lines += "\n";
    }
    return lines + "Any type at all: post TYPE body=HEX\n";
}

} // namespace

void add_post(CLI::App &app, Command &command)
{
    auto options = std::make_shared<PostOptions>();
    CLI::App *sub = app.add_subcommand("post", "Send any message");
    sub->add_option("message", options->message, "one of the messages below, or a type")->required();
    sub->add_option("fields", options->words, "FIELD=VALUE, or the values in order; a list field repeats");
    sub->add_flag("--reply{*}", options->reply,
                  "wait for the answer that the catalogue has, or for --reply=MESSAGE");
    sub->footer(usage());
    sub->callback([=, &command] {
        command = {.name = "post", .takes_several = true};
        command.check = [=] { check_post(*options); };
        command.run = [=](Session &session, Outcome &outcome) { run_post(session, outcome, *options); };
    });
}
