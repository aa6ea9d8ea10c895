// send-file: sends a file in pieces, each of which must be confirmed. A confirm shows only that the other end
// has received the piece; so whether the file exists is asked before and after.

#include "arguments.h"
#include "call.h"
#include "common/clock.h"
#include "errors.h"
#include "progress.h"

#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_utility/qel_filesystem/paths.h"

#include <CLI/CLI.hpp>

#include <optional>

namespace
{

const int piece_bytes_max = 22050;
const size_t asked_path_bytes_max = 99;

struct SendFileOptions {
    std::string local;
    std::string remote;
    int tries = 1;
    int piece_bytes = piece_bytes_max;
};

/// What is known of the file at the other end.
struct Sending {
    const SendFileOptions &options;
    uint64_t bytes = 0; ///< of it, confirmed in this try
    int tries = 0;
    std::optional<bool> existed = {}, exists = {};
};

Json known(const std::optional<bool> &value)
{
    return value ? Json(*value) : Json();
}

void report(const Sending &sending, Outcome &outcome)
{
    outcome.result = {{"bytes", sending.bytes},
                      {"tries", sending.tries},
                      {"existed", known(sending.existed)},
                      {"exists", known(sending.exists)}};
}

bool ask(Session &session, const std::string &path)
{
    Message question = build_message(qel_sysmsg_type_path_exists, {{"path", path}});
    Message answer = session_ask(session, question, qel_sysmsg_type_reply_path_exists);
    require_fitting(answer);
    return std::get<uint64_t>(fields_of(answer).at("exists")) != 0;
}

/// Nothing when the path cannot be asked for, or nobody answers.
std::optional<bool> ask_before(Session &session, const std::string &path)
{
    if (path.size() > asked_path_bytes_max || qel_path_is_absolute(path.c_str()) == 0)
        return std::nullopt;
    try {
        return ask(session, path);
    } catch (const Failure &failure) {
        if (failure.fault != fault::no_answer)
            throw;
        note("the other end does not say whether it has " + path);
        return std::nullopt;
    }
}

void send_part(Session &session, uint32_t type, const FieldValues &values, const std::string &what)
{
    Message message = build_message(type, values);
    session_require(session, message, what);
}

/// Sends the file once, whole. `sending.bytes` follows what is confirmed.
void send_once(Session &session, Outcome &outcome, Sending &sending, const LocalFile &file)
{
    Progress progress = progress_start(file.path, file.size);
    sending.bytes = 0;
    ++sending.tries;
    report(sending, outcome);
    send_part(session, qel_sysmsg_type_file_begin, {{"path", sending.options.remote}}, "the file's name");
    while (sending.bytes < file.size) {
        std::string piece = read_piece(file, sending.bytes, static_cast<size_t>(sending.options.piece_bytes));
        if (piece.empty())
            throw Failure(fault::bad_file,
                          "file " + file.path + " has become shorter; send it again when it is whole");
        send_part(session, qel_sysmsg_type_file_data, {{"block", piece}},
                  "the piece at byte " + std::to_string(sending.bytes));
        sending.bytes += piece.size();
        report(sending, outcome);
        progress_show(progress, sending.bytes);
    }
    send_part(session, qel_sysmsg_type_file_end, {}, "the end of the file");
    note("sent " + file.path + ": " + std::to_string(sending.bytes) + " bytes, " +
         rate_text(sending.bytes, seconds_now() - progress.started_at));
}

/// Asks for the file after a try. Throws when it is not there.
void ask_after(Session &session, Outcome &outcome, Sending &sending)
{
    if (!sending.existed)
        return;
    sending.exists = ask(session, sending.options.remote);
    report(sending, outcome);
    if (!*sending.exists)
        throw Failure(fault::not_there, "the other end has confirmed all of it, but has no " +
                                            sending.options.remote +
                                            "; see whether it may write there, and has room");
}

bool may_help_to_repeat(const Failure &failure)
{
    return failure.fault == fault::not_confirmed || failure.fault == fault::not_there ||
           failure.fault == fault::no_answer;
}

void run_send_file(Session &session, Outcome &outcome, const SendFileOptions &options)
{
    LocalFile file = open_file(options.local);
    Sending sending = {options};
    sending.existed = ask_before(session, options.remote);
    while (sending.tries < options.tries) {
        try {
            send_once(session, outcome, sending, file);
            ask_after(session, outcome, sending);
            break;
        } catch (const Failure &failure) {
            if (sending.tries == options.tries || !may_help_to_repeat(failure))
                throw;
            note(std::string(failure.what()) + ": sending again");
        }
    }
    if (sending.existed && !*sending.existed)
        outcome.proof = "exists";
    else
        throw Failure(fault::unverified,
                      "all of it is confirmed, but " +
                          std::string(sending.existed ? "there was a file before"
                                                      : "the other end was not asked for it, or "
                                                        "did not answer") +
                          ": nothing shows that it has been written; look at it there");
}

} // namespace

void add_send_file(CLI::App &app, Command &command)
{
    auto options = std::make_shared<SendFileOptions>();
    CLI::App *sub = app.add_subcommand("send-file", "Send a file");
    sub->add_option("local", options->local, "the file here")->required();
    sub->add_option("remote", options->remote, "its path there")->required();
    sub->add_option("--tries", options->tries, "send it up to N times until it is there (1)")
        ->check(CLI::Range(1, 1000000));
    sub->add_option("--chunk", options->piece_bytes, "bytes in a message (22050)")
        ->check(CLI::Range(1, piece_bytes_max));
    sub->callback([=, &command] {
        command = {.name = "send-file", .takes_several = true};
        command.check = [=] { open_file(options->local); };
        command.run = [=](Session &session, Outcome &outcome) { run_send_file(session, outcome, *options); };
    });
}
