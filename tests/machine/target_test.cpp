// The 32-bit loader in the cabinet. What the loader does, the other tests of this folder say of the 64-bit
// one; here both run, and all that is to be seen of them must be the same.

#include "install_machine.h"

#include <gmock/gmock.h>

using testing::IsEmpty;

namespace
{

/// What was seen of a cabinet.
using Account = std::vector<std::string>;

/// The console to where the application is about to start.
std::string start_up_lines(const Machine &machine)
{
    size_t end = machine.cabinet.console.find("run: ");
    EXPECT_NE(end, std::string::npos);
    return machine.cabinet.console.substr(0, end);
}

Account board_records(const Machine &machine)
{
    Account records;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::command || event.kind == Event::lcd_row ||
            event.kind == Event::link_from_loader || event.kind == Event::other_record)
            records.push_back(std::to_string(event.kind) + " " + event.text);
    return records;
}

/// An ELF file's mark and its class: 1 in a 32-bit program, 2 in a 64-bit one.
std::string class_of_loader(Machine &machine)
{
    return look_inside(machine.cabinet, "head -c 5 /proc/1/exe | od -A n -t x1");
}

Account account_of_start(const std::string &target)
{
    Machine machine(target);
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);
    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_TRUE(wait_for_recorder(machine, "Xfake"));
    EXPECT_EQ(class_of_loader(machine), target == "i586" ? " 7f 45 4c 46 01\n" : " 7f 45 4c 46 02\n");

    Account account = {start_up_lines(machine)};
    // What both programs were given, as the recorder writes it down before it looks for a Wine prefix.
    for (const std::string name : {"qel_application_1", "Xfake"})
        for (const std::string &note : notes_of(machine, name)) {
            if (note.starts_with("prefix "))
                break;
            account.push_back(name + " " + note);
        }
    for (const std::string &record : board_records(machine))
        account.push_back(record);
    for (const char *command :
         {"tail -n +2 /proc/mounts", "find /dev | sort | xargs stat -c '%n %F %a %t:%T'",
          "readlink /qel_home", "cd /proc/1/fd && for f in *; do readlink $f; done", "readlink /proc/1/cwd"})
        account.push_back(look_inside(machine.cabinet, command));
    return account;
}

Account account_of_install(const std::string &target)
{
    InstallMachine machine(target);
    add_archive(machine);
    start_install(machine);
    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_1")) << machine.cabinet.console;

    Account account = tools_of(machine);
    account.push_back(start_up_lines(machine));
    power_off(machine.cabinet);
    EXPECT_THAT(disk_faults(machine), IsEmpty());
    for (const std::string &name : storage_names(machine))
        account.push_back(name);
    account.push_back(storage_file(machine, "qel_application_1"));
    return account;
}

} // namespace

TEST(Loader32Bit, StartsTheCabinetAsThe64BitOneDoes)
{
    EXPECT_EQ(account_of_start("i586"), account_of_start("x86-64"));
}

TEST(Loader32Bit, InstallsTheCabinetAsThe64BitOneDoes)
{
    EXPECT_EQ(account_of_install("i586"), account_of_install("x86-64"));
}
