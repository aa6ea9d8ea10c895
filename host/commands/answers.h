// What serve answers, and where it has it from: the folder for whatever is a file (plugins/ID, items/NAME,
// any path), options for values whose meaning is not known here. Deciphering is not known either: the bytes
// come back as they are.
#pragma once

#include "commands/folder.h"
#include "fields.h"

struct ServeOptions {
    std::string folder;
    bool once = false;  ///< end with the first peer
    double seconds = 0; ///< 0: until interrupted
    bool notices = false;
    std::vector<std::string> info = {"0", "0", "0"}, values = {"0", "0"};
    std::string answer, text;
};

/// Whether messages of this type are queries.
bool has_answer(uint32_t type);

/// The fields of the answer to a query of this type, which asks with these fields.
FieldValues answer_to(uint32_t type, const FieldValues &asked, const ServeOptions &options,
                      const Folder &folder);

/// A field that is a text, or bytes.
std::string text_of(const FieldValues &fields, const char *name);
