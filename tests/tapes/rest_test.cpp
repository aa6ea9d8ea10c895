// What makes no call that can fail, and the proof that no function is left out.

#include "support/stops.h"
#include "tapes/golden.h"

#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_lpc_comms.h"
#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_utility/qel_filesystem/paths.h"
#include "qel_utility/qel_log.h"
#include "qel_utility/qel_string.h"

#include <gmock/gmock.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>

namespace
{

/// Calls `use` with memory watched.
Scenario without_calls(const char *name, void (*use)())
{
    const auto run = [=](Ground &ground) {
        ground.kernel.watches_memory = 1;
        use();
    };
    return {name, run};
}

void judge_paths()
{
    for (const char *path : {"/a/b", "C:/a", "a//b", "/"}) {
        qel_path_is_root_dir(path);
        qel_unix_path_is_root_dir(path);
        qel_dos_path_is_root_dir(path);
        qel_path_is_valid(path);
        qel_path_is_absolute(path);
        qel_unix_path_is_absolute(path);
        qel_dos_path_is_absolute(path);
        qel_filename_is_valid(path);
    }
}

void compose_paths()
{
    char path[100] = "C:\\a\\\\b\\";
    qel_path_normalize(path);
    qel_path_normalize_strict(path);
    qel_path_to_dos(path);
    qel_filename_make_valid(path);
    strcpy(path, "/a/b/");
    qel_strip_trailing_slash(path);
    qel_path_put_extension(".c", path, sizeof path);
    char other[100];
    qel_parent_dir(path, other, sizeof other);
    qel_child_path(path, "c", other, sizeof other);
    qel_sibling_path(path, "c", other, sizeof other);
    qel_filename_part(path, other, sizeof other);
}

void change_strings()
{
    char text[100] = "  some \t text ";
    qel_str_is_blank(text);
    qel_str_trim_left(text);
    qel_str_trim_right(text);
    qel_str_trim(text);
    qel_str_collapse_spaces(text);
    qel_str_normalize_spaces(text);
    char other[100];
    qel_str_replace(text, other, sizeof other, "some", "any");
}

void compute_crcs()
{
    uint16_t crc = qel_crc16_update(qel_crc16_init(), "123456789", 9);
    crc = qel_crc16_value(qel_crc16_update_final(crc, "x", 1));
    qel_crc16_final(crc);
    qel_crc16("x", 1);
}

void log_and_switch()
{
    char code[100];
    qel_location_code("x/ab", 407, code, sizeof code);
    qel_print("%s", code);
    qel_lpc_set_pacing(qel_lpc_get_pacing());
    qel_sysmsg_flag_on();
    qel_sysmsg_forget_sequence();
    qel_sysmsg_chunk_size();
    qel_sysmsg_trace("x");
}

int report_fatal_error()
{
    try {
        QEL_FATAL_ERROR_AT(12, "a message\n");
    } catch (const Stop &stop) {
        return stop.line;
    }
}

int confirm_last(void *con);

/// A peer that confirms and does not answer.
qel_sysmsg_con con = {[](qel_sysmsg_con *, const void *) {},
                      [](void *number, const void *message, int size) {
                          if (size > 8)
                              *static_cast<uint8_t *>(number) = static_cast<const uint8_t *>(message)[8];
                          return 0;
                      },
                      nullptr, confirm_last, nullptr};

int confirm_last(void *number)
{
    const uint8_t confirm[12] = {15, 0, 0, 0, 12, 0, 0, 0, *static_cast<uint8_t *>(number)};
    // Unasked for, it goes to the handler.
    qel_sysmsg_receive(&con, confirm, sizeof confirm);
    return 0;
}

std::string query_in_vain(Ground &ground)
{
    ground.kernel.watches_memory = 1;
    uint8_t number = 0;
    con.send_ctx = con.poll_ctx = &number;
    // Every poll takes a second, so that the answer is soon given up.
    static FakeKernel *clock;
    clock = &ground.kernel;
    con.poll = [](void *last) {
        clock->advance_usec(1000000);
        return confirm_last(last);
    };
    const char *items[] = {"x"};
    const char *text;
    qel_sysmsg_info info;
    uint64_t size, other;
    uint8_t request[12] = {22, 0, 0, 0, 12}, notice[8] = {31, 0, 0, 0, 8};
    qel_comms link = {};
    link.poll = [](void *) { return 0; };
    qel_sysmsg_send(&con, notice);
    const int confirmed = qel_sysmsg_request(&con, request);
    request[8] = 0; // to be numbered again
    uint8_t reply[16];
    const int replied = qel_sysmsg_send_sequenced(&con, request, 1, 29, reply, sizeof reply);
    const int answered = qel_sysmsg_query_23(&con, "x", items, 1, &text) + qel_sysmsg_get_info(&con, &info) +
                         qel_sysmsg_get_item_size(&con, 1, "x", 2, &size) +
                         qel_sysmsg_query_41(&con, &size, &other) +
                         qel_sysmsg_get_plugin_size(&con, 1, &size);
    return std::to_string(confirmed) + " " + std::to_string(replied + answered + qel_comms_poll(&link));
}

const std::vector<Scenario> without_any = {
    without_calls("JudgePaths", judge_paths),
    without_calls("ComposePaths", compose_paths),
    without_calls("ChangeStrings", change_strings),
    without_calls("ComputeCrcs", compute_crcs),
    without_calls("LogAndSwitch", log_and_switch),
    {"LogTimestamp", [] { return qel_log_timestamp(stdout); }, {}, "it shows the time"},
    {"FatalError", report_fatal_error, {}, "it shows the time"},
    {"QueryInVain", query_in_vain},
};

// ---- Nothing is left out ----

std::string text_of(const std::filesystem::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The names that code calls: those before a parenthesis, but not in comments and literals.
std::set<std::string> called_in(const std::string &code)
{
    static const std::regex not_code(R"--(//[^\n]*|/\*[\s\S]*?\*/|"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])+')--");
    static const std::regex call(R"--((\w+)\()--");
    const std::string text = std::regex_replace(code, not_code, " ");
    std::set<std::string> names;
    for (std::sregex_iterator match(text.begin(), text.end(), call), end; match != end; ++match)
        names.insert((*match)[1]);
    return names;
}

/// The functions that the public headers declare. Those with a leading underscore are the libraries' own.
std::vector<std::string> public_functions(const std::filesystem::path &root)
{
    std::vector<std::string> names;
    static const std::regex declaration("(?:^|\n)[a-z\\[][^\n;{}/#]*?\\b((?:qel_|find_)\\w+)\\(");
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root / "src")) {
        if (entry.path().extension() != ".h")
            continue;
        const std::string text = text_of(entry.path());
        for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end; ++match) {
            const std::string name = (*match)[1];
            if (match->str().find("typedef") == std::string::npos &&
                match->str().find("inline") == std::string::npos)
                names.push_back(name);
        }
    }
    return names;
}

} // namespace

INSTANTIATE_TAPES(without_any, without_any);

TEST(Tapes, CountNoFunctionAsCalledThatIsOnlyNamed)
{
    EXPECT_THAT(called_in("int x = f(g(\"\\\"h()\"), 'i', &j); // k()\nl(); /* m()\n n() */ o ();"),
                testing::ElementsAre("f", "g", "l"));
}

TEST(Tapes, LeaveNoFunctionOut)
{
    const auto root = std::filesystem::path(QEL_TAPES_FOLDER).parent_path().parent_path();
    // The start-up scenario runs main.
    std::set<std::string> known = called_in(text_of(root / "src/qel_application_loader/main.cpp"));
    for (const auto &entry : std::filesystem::directory_iterator(root / "tests/tapes")) {
        if (entry.path().extension() == ".cpp")
            known.merge(called_in(text_of(entry.path())));
    }
    const std::vector<std::string> functions = public_functions(root);
    EXPECT_GT(functions.size(), 180U);
    for (const std::string &function : functions) {
        // One is what a stop is, the other the update mode's own, handed to the link.
        if (function != "qel_assert_fail" && function != "qel_update_handler") {
            EXPECT_TRUE(known.count(function)) << function;
        }
    }
}
