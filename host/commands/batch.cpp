// batch: commands over one link. A file is checked whole before the link is opened; standard input runs as it
// comes.

#include "arguments.h"
#include "call.h"
#include "common/interrupt.h"
#include "errors.h"

#include <CLI/CLI.hpp>

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <sstream>

namespace
{

struct BatchOptions {
    std::string file = "-";
    bool keep_going = false;
};

struct Line {
    size_t number;
    Command command;
};

struct Batch {
    const BatchOptions &options;
    bool unverified_ok;
    unsigned done = 0, failed = 0;
    std::optional<Failure> first = std::nullopt; ///< what ended the first line that failed
};

[[noreturn]] void bad_line(size_t number, const Failure &failure)
{
    throw Failure(failure.fault, "line " + std::to_string(number) + ": " + failure.what());
}

// ---- Words ----

/// Takes a quoted part at the front of `text`. Between ' all is literal; between " a \ stands before " and \.
std::string take_quoted(std::string &text)
{
    const char quote = text[0];
    std::string part;
    for (size_t i = 1; i < text.size(); ++i) {
        if (text[i] == quote) {
            text.erase(0, i + 1);
            return part;
        }
        if (quote == '"' && text[i] == '\\' && i + 1 < text.size() && strchr("\"\\", text[i + 1]) != nullptr)
            ++i;
        part += text[i];
    }
    wrong_call(std::string("a ") + quote + " is not closed");
}

std::vector<std::string> words_of(std::string text)
{
    const char *const blanks = " \t\r";
    std::vector<std::string> words;
    for (;;) {
        text.erase(0, std::min(text.find_first_not_of(blanks), text.size()));
        if (text.empty() || (words.empty() && text[0] == '#'))
            return words;
        words.emplace_back();
        while (!text.empty() && strchr(blanks, text[0]) == nullptr) {
            if (text[0] == '\'' || text[0] == '"') {
                words.back() += take_quoted(text);
                continue;
            }
            words.back() += text[0];
            text.erase(0, 1);
        }
    }
}

// ---- Lines ----

void add_sleep(CLI::App &app, Command &command)
{
    auto seconds = std::make_shared<double>(0);
    CLI::App *sub = app.add_subcommand("sleep", "Wait; messages that come are confirmed");
    sub->add_option("seconds", *seconds, "how many")->required()->check(CLI::Range(0.0, 1e9));
    sub->callback([=, &command] {
        command = {.name = "sleep"};
        command.run = [=](Session &session, Outcome &) { session_wait(session, *seconds); };
    });
}

void add_commands(CLI::App &app, Command &command)
{
    app.set_help_flag();
    for (auto *add :
         {add_connect, add_update, add_send_file, add_query, add_post, add_test_pattern, add_sleep})
        add(app, command);
    for (CLI::App *sub : app.get_subcommands({}))
        sub->set_help_flag();
}

/// The command that a line names, which may be wrong otherwise; "" when it names none.
std::string command_in(const std::string &text)
{
    CLI::App app("", "");
    Command command;
    add_commands(app, command);
    std::string word;
    std::istringstream(text) >> word;
    return command_among(app, {word});
}

Command command_of(std::vector<std::string> words)
{
    CLI::App app("", "");
    Command command;
    app.require_subcommand(1);
    add_commands(app, command);
    std::ranges::reverse(words);
    try {
        app.parse(words);
    } catch (const CLI::ParseError &error) {
        wrong_call(error.what());
    }
    if (command.watches && command.seconds == 0)
        wrong_call("in a batch, connect takes --seconds");
    if (command.check)
        command.check();
    return command;
}

/// Nothing for an empty line and a comment.
std::optional<Line> line_of(size_t number, const std::string &text)
{
    try {
        std::vector<std::string> words = words_of(text);
        if (words.empty())
            return std::nullopt;
        return Line{number, command_of(words)};
    } catch (const Failure &failure) {
        bad_line(number, failure);
    }
}

std::vector<Line> lines_of(const std::string &path)
{
    LocalFile file = open_file(path);
    std::istringstream text(read_piece(file, 0, file.size));
    std::vector<Line> lines;
    size_t number = 0;
    for (std::string line; std::getline(text, line);)
        if (auto one = line_of(++number, line))
            lines.push_back(std::move(*one));
    return lines;
}

// ---- Running ----

void count_failed(Batch &batch, const Failure &failure)
{
    ++batch.failed;
    if (!batch.first)
        batch.first = failure;
    bool is_end = failure.fault == fault::hung_up || failure.fault == fault::interrupted ||
                  failure.fault == fault::output;
    if (is_end || !batch.options.keep_going)
        throw *batch.first;
    print_error(failure.what());
}

void print_ended(size_t number, const Ended &ended)
{
    if (!output.link.empty())
        return; // of several links, each has one result
    if (output.json) {
        Json result = ended_json(ended);
        result["line"] = number;
        print_json(result);
    } else {
        print_result(ended);
    }
}

void run_line(Session &session, Batch &batch, const Line &line)
{
    Ended ended = carry_out(line.command, session, batch.unverified_ok);
    print_ended(line.number, ended);
    if (ended.fault.exit == 0)
        ++batch.done;
    else
        count_failed(batch, Failure(ended.fault, "line " + std::to_string(line.number) + ": " + ended.text));
    if (interrupted())
        throw Failure(fault::interrupted, "interrupted");
}

/// A line of standard input, as soon as it is there; the link is looked after meanwhile. Nothing at the end.
std::optional<std::string> next_line(Session &session, std::string &gathered)
{
    for (;;) {
        // Ctrl-C may also end the program that writes the lines: the end of the input then does not count.
        if (interrupted())
            throw Failure(fault::interrupted, "interrupted");
        size_t end = gathered.find('\n');
        if (end != std::string::npos) {
            std::string line = gathered.substr(0, end);
            gathered.erase(0, end + 1);
            return line;
        }
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        if (poll(&input, 1, 0) != 1) {
            session_poll(session, 1);
            continue;
        }
        char bytes[4096];
        ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
        if (n > 0)
            gathered.append(bytes, static_cast<size_t>(n));
        else if (n == 0 || (errno != EINTR && errno != EAGAIN))
            return gathered.empty() ? std::nullopt : std::optional(std::exchange(gathered, ""));
    }
}

void run_input(Session &session, Batch &batch, const std::function<void()> &report)
{
    std::string gathered;
    for (size_t number = 1; auto text = next_line(session, gathered); ++number) {
        std::optional<Line> line;
        try {
            line = line_of(number, *text);
        } catch (const Failure &failure) {
            Ended ended = failed(command_in(*text), failure);
            ended.link = session.name;
            ended.counts = counts_json(session.link);
            print_ended(number, ended);
            count_failed(batch, failure);
        }
        if (line)
            run_line(session, batch, *line);
        report();
    }
}

void run_batch(Session &session, Outcome &outcome, Batch batch, const std::vector<Line> &lines)
{
    auto report = [&] { outcome.result = {{"done", batch.done}, {"failed", batch.failed}}; };
    report();
    try {
        for (const Line &line : lines) {
            run_line(session, batch, line);
            report();
        }
        if (batch.options.file == "-")
            run_input(session, batch, report);
    } catch (const Failure &) {
        report();
        throw;
    }
    if (batch.first)
        throw Failure(batch.first->fault, batch.first->what());
}

} // namespace

void add_batch(CLI::App &app, Command &command, const Call &call)
{
    auto options = std::make_shared<BatchOptions>();
    auto lines = std::make_shared<std::vector<Line>>();
    CLI::App *sub = app.add_subcommand("batch", "Run commands over one link, one in each line of a file");
    sub->add_option("file", options->file, "the file; - or nothing: standard input, which runs as it comes");
    sub->add_flag("--keep-going", options->keep_going, "go on after a line that failed");
    sub->footer(
        "Lines: connect (with --seconds), update, send-file, query, post, test-pattern, sleep S. Words are "
        "split at\nblanks; 'literal' and \"with \\\" and \\\\\" keep them together; # begins a comment.\n");
    sub->callback([=, &command, &call] {
        command = {.name = "batch", .takes_several = true, .reads_input = options->file == "-"};
        command.check = [=] {
            if (options->file != "-")
                *lines = lines_of(options->file);
        };
        command.run = [=, &call](Session &session, Outcome &outcome) {
            run_batch(session, outcome, {*options, call.unverified_ok}, *lines);
        };
    });
}
