// A function for each query.

#include "commands/answers.h"

#include "arguments.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <algorithm>

namespace
{

FieldValues answer_plugins(const ServeOptions &, const Folder &folder, const FieldValues &)
{
    return {{"plugins", folder_numbers(folder, "plugins")}};
}

FieldValues answer_23(const ServeOptions &options, const Folder &, const FieldValues &)
{
    return {{"text", options.answer}};
}

FieldValues answer_path_exists(const ServeOptions &, const Folder &folder, const FieldValues &asked)
{
    return {{"exists", uint64_t{folder_has(folder, text_of(asked, "path"))}}};
}

FieldValues answer_info(const ServeOptions &options, const Folder &, const FieldValues &)
{
    const auto &info = options.info;
    return {{"a", to_number(info[0], UINT32_MAX)},
            {"b", to_number(info[1], UINT32_MAX)},
            {"c", to_number(info[2], UINT32_MAX)}};
}

FieldValues answer_item_size(const ServeOptions &, const Folder &folder, const FieldValues &asked)
{
    FieldValues answer = asked;
    answer["item_size"] = folder_file_size(folder, "items/" + text_of(asked, "name"));
    return answer;
}

FieldValues answer_41(const ServeOptions &options, const Folder &, const FieldValues &)
{
    return {{"first", to_number(options.values[0], UINT64_MAX)},
            {"second", to_number(options.values[1], UINT64_MAX)}};
}

FieldValues answer_plugin_size(const ServeOptions &, const Folder &folder, const FieldValues &asked)
{
    uint64_t plugin = std::get<uint64_t>(asked.at("plugin_id"));
    return {{"plugin_id", plugin},
            {"plugin_size", folder_file_size(folder, "plugins/" + std::to_string(plugin))}};
}

/// Without a text there are no bytes at all, not even a NUL.
FieldValues answer_text(const ServeOptions &options, const Folder &, const FieldValues &)
{
    return options.text.empty() ? FieldValues{} : FieldValues{{"text", options.text}};
}

FieldValues answer_decipher(const ServeOptions &, const Folder &, const FieldValues &asked)
{
    return asked;
}

struct Answer {
    uint32_t type; ///< of the query
    FieldValues (*fields)(const ServeOptions &options, const Folder &folder, const FieldValues &asked);
};

const Answer answers[] = {
    {qel_sysmsg_type_get_plugins, answer_plugins},         {qel_sysmsg_type_query_23, answer_23},
    {qel_sysmsg_type_path_exists, answer_path_exists},     {qel_sysmsg_type_get_info, answer_info},
    {qel_sysmsg_type_get_item_size, answer_item_size},     {qel_sysmsg_type_query_41, answer_41},
    {qel_sysmsg_type_get_plugin_size, answer_plugin_size}, {qel_sysmsg_type_get_text, answer_text},
    {qel_sysmsg_type_decipher, answer_decipher},
};

/// Returns null when the message is not a query.
const Answer *find_answer(uint32_t type)
{
    auto found = std::ranges::find(answers, type, &Answer::type);
    return found == std::end(answers) ? nullptr : found;
}

} // namespace

bool has_answer(uint32_t type)
{
    return find_answer(type) != nullptr;
}

FieldValues answer_to(uint32_t type, const FieldValues &asked, const ServeOptions &options,
                      const Folder &folder)
{
    return find_answer(type)->fields(options, folder, asked);
}

std::string text_of(const FieldValues &fields, const char *name)
{
    return std::get<std::string>(fields.at(name));
}
