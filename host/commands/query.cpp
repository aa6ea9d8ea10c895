// query: asks and prints the bare answer.

#include "arguments.h"
#include "call.h"
#include "errors.h"

#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_utility/qel_filesystem/paths.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace
{

/// How a query is spelled, what it sends, and what of the answer is printed.
struct Query {
    const char *name;
    uint32_t type;
    const char *arguments;             ///< for the usage line
    std::vector<const char *> fields;  ///< that the arguments go to, in order; a list takes the rest
    size_t required;                   ///< number of arguments that must be there
    std::vector<const char *> printed; ///< fields of the answer
};

const Query queries[] = {
    {"plugins", 13, "", {}, 0, {"plugins"}},
    {"path-exists", 28, "PATH", {"path"}, 1, {"exists"}},
    {"info", 36, "", {}, 0, {"a", "b", "c"}},
    {"item-size", 39, "VALUE VALUE2 [NAME]", {"value", "value2", "name"}, 2, {"item_size"}},
    {"plugin-size", 43, "ID", {"plugin_id"}, 1, {"plugin_size"}},
    {"text", 46, "", {}, 0, {"text"}},
    {"41", 41, "", {}, 0, {"first", "second"}},
    {"23", 23, "NAME [ITEM, up to 10]", {"name", "items"}, 1, {"text"}},
    {"decipher", 48, "BYTES as hexadecimal digits, or @FILE", {"block"}, 1, {"block"}},
};

struct QueryOptions {
    std::string what;
    std::vector<std::string> arguments;
    int tries = 1;
    const Query *query = nullptr;
    FieldValues values;
};

std::string usage()
{
    std::string lines = "Queries:\n";
    for (const Query &query : queries)
        lines += std::string("  ") + query.name + " " + query.arguments + "\n";
    return lines;
}

/// What the catalogue allows, but nobody can answer.
void check_values(const QueryOptions &options)
{
    const FieldValues &values = options.values;
    if (options.what == "path-exists" &&
        qel_path_is_absolute(std::get<std::string>(values.at("path")).c_str()) == 0)
        wrong_call(in_quotes(options.arguments[0]) +
                   " is not an absolute path: it must begin with /, not end in it, and "
                   "have no // nor any of \\ : * ? \" < > | in it");
    if (options.what == "plugin-size" && std::get<uint64_t>(values.at("plugin_id")) == 0)
        wrong_call("plugin ids begin with 1");
    if (options.what == "decipher" && std::get<std::string>(values.at("block")).empty())
        wrong_call("there is nothing to decipher: give some bytes");
}

void check_query(QueryOptions &options)
{
    auto found = std::ranges::find(queries, options.what, &Query::name);
    if (found == std::end(queries))
        wrong_call("there is no query \"" + options.what + "\"");
    options.query = found;
    const Query &query = *found;
    const CatalogueMessage &message = *catalogue_find(query.type);
    const std::vector<std::string> &words = options.arguments;
    size_t used = 0;
    for (const char *name : query.fields) {
        if (used == words.size())
            break;
        const CatalogueField &field =
            *std::ranges::find(message.fields, std::string(name), &CatalogueField::name);
        size_t taken = field.kind == FieldKind::texts ? words.size() - used : 1;
        auto from = words.begin() + static_cast<ptrdiff_t>(used);
        options.values[name] = to_field(message, field, {from, from + static_cast<ptrdiff_t>(taken)});
        used += taken;
    }
    if (used < words.size() || words.size() < query.required)
        wrong_call(options.what + " takes " + (query.fields.empty() ? "no arguments" : query.arguments));
    check_values(options);
}

std::string bare(const Json &value)
{
    return value.is_string() ? in_quotes(value.get<std::string>()) : value.dump();
}

/// The fields of the answer, from its MESSAGE: a line, or one for each entry of a list.
std::string bare_answer(const Query &query, const Json &answer)
{
    std::string text;
    for (const char *name : query.printed) {
        const Json &value = answer["fields"][name];
        if (query.type == qel_sysmsg_type_decipher)
            return value.get<std::string>();
        if (value.is_array())
            for (const Json &one : value)
                text += (text.empty() ? "" : "\n") + bare(one);
        else
            text += (text.empty() ? "" : " ") + bare(value);
    }
    return text;
}

void ask(Session &session, Outcome &outcome, const QueryOptions &options)
{
    Message question = build_message(options.query->type, options.values);
    Message answer = session_ask(session, question, catalogue_find(options.query->type)->answer);
    outcome.result = message_json(answer);
    require_fitting(answer);
    if (options.query->type == qel_sysmsg_type_decipher && answer.size() > question.size())
        throw Failure(fault::bad_answer,
                      "the answer is longer than what was to be deciphered; see whether both ends "
                      "are of the same release");
    outcome.answer = bare_answer(*options.query, outcome.result);
    outcome.proof = "answered";
}

void run_query(Session &session, Outcome &outcome, const QueryOptions &options)
{
    for (int tries = 1;; ++tries) {
        try {
            return ask(session, outcome, options);
        } catch (const Failure &failure) {
            bool may_repeat = failure.fault == fault::not_confirmed || failure.fault == fault::no_answer;
            if (!may_repeat || tries == options.tries)
                throw;
            note(std::string(failure.what()) + ": asking again");
        }
    }
}

} // namespace

std::vector<std::string> query_names()
{
    std::vector<std::string> names;
    for (const Query &query : queries)
        names.emplace_back(query.name);
    return names;
}

void add_query(CLI::App &app, Command &command)
{
    auto options = std::make_shared<QueryOptions>();
    CLI::App *sub = app.add_subcommand("query", "Ask the other end and print its answer");
    sub->add_option("what", options->what, "one of the queries below")->required();
    sub->add_option("arguments", options->arguments, "its arguments");
    sub->add_option("--tries", options->tries, "ask up to N times, on a bad link (1)")
        ->check(CLI::Range(1, 1000000));
    sub->footer(usage());
    sub->callback([=, &command] {
        command = {.name = "query", .takes_several = true};
        command.check = [=] { check_query(*options); };
        command.run = [=](Session &session, Outcome &outcome) { run_query(session, outcome, *options); };
    });
}
