// Reads ELF headers with <elf.h>; both classes have the same members.

#include "updater_file.h"

#include "arguments.h"
#include "errors.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <elf.h>
#include <string.h>

namespace
{

const uint64_t image_bytes_max = 0x7FFFFFFF - 12;

[[noreturn]] void unfit(const LocalFile &file, const std::string &why)
{
    throw Failure(fault::bad_file,
                  "file " + file.path + ": " + why +
                      "; link the updater statically for the cabinet, or send it with --force");
}

template <typename Record> Record read_record(const LocalFile &file, uint64_t offset)
{
    std::string bytes = read_piece(file, offset, sizeof(Record));
    if (bytes.size() < sizeof(Record))
        unfit(file, "a program that is cut off");
    Record record;
    memcpy(&record, bytes.data(), sizeof record);
    return record;
}

/// A shared library is built like a PIE, except for this flag.
template <typename Entry, typename Segment> void check_flags(const LocalFile &file, const Segment &dynamic)
{
    for (uint64_t at = 0; at + sizeof(Entry) <= dynamic.p_filesz; at += sizeof(Entry)) {
        auto entry = read_record<Entry>(file, dynamic.p_offset + at);
        if (entry.d_tag == DT_FLAGS_1 && (entry.d_un.d_val & DF_1_PIE) != 0)
            return;
    }
    unfit(file, "a shared library");
}

template <typename Header, typename Segment, typename Entry>
void check_program(const LocalFile &file, unsigned machine)
{
    auto header = read_record<Header>(file, 0);
    if (header.e_machine != machine || header.e_ident[EI_DATA] != ELFDATA2LSB)
        unfit(file, "a program for another processor");
    if (header.e_type != ET_EXEC && header.e_type != ET_DYN)
        unfit(file, "neither an executable nor a PIE");
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        auto segment = read_record<Segment>(file, header.e_phoff + uint64_t{i} * header.e_phentsize);
        if (segment.p_type == PT_INTERP)
            unfit(
                file,
                "a program that needs an interpreter and shared libraries, which the cabinet does not have");
        if (segment.p_type == PT_DYNAMIC && header.e_type == ET_DYN)
            check_flags<Entry>(file, segment);
    }
}

} // namespace

void check_updater(const std::string &path, bool any_form)
{
    LocalFile file = open_file(path);
    if (file.size < 1 || file.size > image_bytes_max)
        throw Failure(fault::bad_file, "file " + path + ": an updater has 1 to " +
                                           std::to_string(image_bytes_max) + " bytes, this has " +
                                           std::to_string(file.size));
    std::string head = read_piece(file, 0, EI_NIDENT);
    if (any_form || head.starts_with("#!/"))
        return;
    if (!head.starts_with(ELFMAG) || head.size() < EI_NIDENT)
        unfit(file, "neither an ELF program nor a script that begins with #!/");
    if (head[EI_CLASS] == ELFCLASS32)
        check_program<Elf32_Ehdr, Elf32_Phdr, Elf32_Dyn>(file, EM_386);
    else if (head[EI_CLASS] == ELFCLASS64)
        check_program<Elf64_Ehdr, Elf64_Phdr, Elf64_Dyn>(file, EM_X86_64);
    else
        unfit(file, "an ELF file of an unknown class");
}

Message updater_message(const std::string &path)
{
    LocalFile file = open_file(path);
    return build_message(qel_sysmsg_type_updater, {{"block", read_piece(file, 0, file.size)}});
}
