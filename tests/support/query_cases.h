/// The queries of the catalogue: what each sends, an answer, and what it gives its caller then and without
/// one.
#pragma once

#include "support/bytes.h"

#include "qel_tolbrin/qel_sysmsg.h"

struct QueryCase {
    const char *name;
    std::string (*ask)(qel_sysmsg_con *); ///< the result and what the caller's variables hold, 77 before
    const char *request;                  ///< "##" is its number
    uint8_t answer_type;
    const char *answer; ///< behind its size
    const char *answered, *unanswered;
};

template <typename... Values> std::string in_words(int result, Values... values)
{
    return (std::to_string(result) + ... + (" " + std::to_string(values)));
}

inline std::string ask_plugins(qel_sysmsg_con *con)
{
    uint32_t plugins[3] = {77, 77, 77}, count = 77;
    const int result = qel_sysmsg_get_plugins(con, plugins, 3, &count);
    return in_words(result, count, plugins[0], plugins[1], plugins[2]);
}

inline std::string ask_23(qel_sysmsg_con *con)
{
    const char *const items[] = {"one", "two"};
    const char *text = "untouched";
    const int result = qel_sysmsg_query_23(con, "name", items, 2, &text);
    return in_words(result) + " " + text;
}

inline std::string ask_path_exists(qel_sysmsg_con *con)
{
    uint32_t exists = 77;
    const int result = qel_sysmsg_tolbrin_path_exists(con, "/a/b", &exists);
    return in_words(result, exists);
}

inline std::string ask_info(qel_sysmsg_con *con)
{
    qel_sysmsg_info info = {0x84030201, 77, 77, 77};
    const int result = qel_sysmsg_get_info(con, &info);
    return in_words(result, info.own, info.a, info.b, info.c);
}

inline std::string ask_item_size(qel_sysmsg_con *con)
{
    uint64_t size = 77;
    const int result = qel_sysmsg_get_item_size(con, 0x81020304, "name", 0x82020304, &size);
    return in_words(result, size);
}

inline std::string ask_41(qel_sysmsg_con *con)
{
    uint64_t first = 77, second = 77;
    const int result = qel_sysmsg_query_41(con, &first, &second);
    return in_words(result, first, second);
}

inline std::string ask_plugin_size(qel_sysmsg_con *con)
{
    uint64_t size = 77;
    const int result = qel_sysmsg_get_plugin_size(con, 0x80000007, &size);
    return in_words(result, size);
}

inline std::string ask_text(qel_sysmsg_con *con)
{
    const char *text = qel_sysmsg_get_text(con);
    return text ? text : "null";
}

inline std::string ask_decipher(qel_sysmsg_con *con)
{
    const void *plain = "untouched";
    uint32_t length = 77;
    const int result = qel_sysmsg_decipher(con, "XYZ", 3, &plain, &length);
    return in_words(result, length) + " " +
           (plain ? std::string(static_cast<const char *>(plain), length) : "null");
}

// Of queries whose results go to the caller, nothing changes without an answer; of the others, the last text
// does not come again.
inline const QueryCase query_cases[] = {
    {"get_plugins", ask_plugins, "0D 00*3 0C 00*3 ## 00*3", 14, "09 00*3 02 00*3 07 00*3 04 03 02 81",
     "1 2 7 2164392708 77", "0 77 77 77 77"},
    {"query_23", ask_23, "17 00*3 5C 04 00 00 ## 'name' 00*96 'one' 00*97 'two' 00*97 00*800 00*3 02 00*3",
     24, "09 'answer' 00*97", "1 answer", "0 untouched"},
    {"path_exists", ask_path_exists, "1C 00*3 70 00*3 ## '/a/b' 00*96 00*3", 29, "09 00*3 04 03 02 81",
     "1 2164392708", "0 77"},
    {"get_info", ask_info, "24 00*3 0C 00*3 ## 00*3", 37, "09 00*3 04 03 02 81 04 03 02 82 FF*4",
     "1 2214789633 2164392708 2181169924 4294967295", "0 2214789633 77 77 77"},
    {"get_item_size", ask_item_size, "27 00*3 40 00*3 ## 00*3 04 03 02 81 'name' 00*28 04 03 02 82 00*12", 40,
     "09 00*3 01 00*3 'name' 00*28 02 00*3 00*4 88 87 86 85 84 83 82 81", "1 9332165983064197000", "0 77"},
    {"query_41", ask_41, "29 00*3 0C 00*3 ## 00*3", 42,
     "09 00*3 00*4 88 87 86 85 84 83 82 81 98 97 96 95 94 93 92 91",
     "1 9332165983064197000 10489608748473423768", "0 77 77"},
    {"get_plugin_size", ask_plugin_size, "2B 00*3 18 00*3 ## 00*3 07 00 00 80 00*8", 44,
     "09 00*3 07 00*3 88 87 86 85 84 83 82 81", "1 9332165983064197000", "0 77"},
    {"get_text", ask_text, "2E 00*3 0C 00*3 ## 00*3", 47, "09 00*3 05 00*3 'text' 00", "text", "null"},
    {"decipher", ask_decipher, "30 00*3 13 00*3 ## 00*3 03 00*3 'XYZ'", 49, "09 00*3 03 00*3 'abc'",
     "1 3 abc", "0 0 null"},
};
