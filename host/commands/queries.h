// The queries: how they are spelled, what they send, and what of the answer is printed.
#pragma once

#include "fields.h"

#include <span>
#include <string>
#include <vector>

struct Query {
    const char *name;
    uint32_t type;
    const char *arguments;             ///< for the usage line
    std::vector<const char *> fields;  ///< that the arguments go to, in order; a list takes the rest
    size_t required;                   ///< so many arguments must be there
    std::vector<const char *> printed; ///< fields of the answer
};

std::span<const Query> queries();

/// Returns null when there is none of that name.
const Query *find_query(const std::string &name);

/// The fields of the answer, from its MESSAGE: a line, or one for each entry of a list.
std::string bare_answer(const Query &query, const Json &answer);
