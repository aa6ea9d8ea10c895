// A cabinet that is about to be installed.

#include "install_machine.h"

#include "disk_check.h"

InstallMachine::InstallMachine()
{
    setup.loader_words = "qelinstall";
    setup.internal_disk = folder.path + "/internal_disk.img";
    make_blank_disk(setup.internal_disk);
    make_system_image(folder.path + "/qel_usr.cramfs", system);
    stick = {{"qel_usr.cramfs", folder.path + "/qel_usr.cramfs"}, {"vmlinux", kernel_stand_in(*this)}};
}

std::string kernel_stand_in(const InstallMachine &machine)
{
    return machine.parts.kernel_folder + "/bzImage";
}

void add_archive(InstallMachine &machine)
{
    std::string program = machine.folder.path + "/qel_application_1";
    write_file(program, read_file(recorder));
    run_tool({"sh", "-c", "cd \"$0\" && zip -q storage.zip qel_application_1", machine.folder.path});
    machine.stick.push_back({"storage.zip", machine.folder.path + "/storage.zip"});
}

void take_telling_loader(InstallMachine &machine)
{
    machine.parts.loader = MACHINE_TEST_TELLING_LOADER;
    machine.ram_disk = ram_disk_list(machine.parts);
}

void replace_tool(InstallMachine &machine, const std::string &tool, const std::string &script)
{
    machine.ram_disk.push_back("file " + tool + " " + file_with(machine, "tool", "#!/bin/sh\n" + script) +
                               " 755 0 0");
}

void start_install(InstallMachine &machine)
{
    if (!machine.stick.empty())
        insert_stick(machine, machine.stick);
    start(machine);
}

std::string wait_for_stop(InstallMachine &machine)
{
    const std::string mark = "stopped ";
    std::string stop;
    auto stopped = [&] {
        for (const Event &event : machine.cabinet.events)
            if (event.kind == Event::note && event.text.starts_with(mark))
                stop = event.text.substr(mark.size());
        return !stop.empty();
    };
    if (!wait_until(machine.cabinet, stopped, patience) || !stays_parked(machine))
        return "";
    return stop;
}

std::vector<std::string> disk_faults(const InstallMachine &machine)
{
    std::vector<std::string> faults;
    for (const Finding &finding : check_disk({machine.setup.internal_disk, kernel_stand_in(machine),
                                              machine.folder.path + "/qel_usr.cramfs"}))
        if (!finding.good)
            faults.push_back(finding.text);
    return faults;
}

bool shows(const InstallMachine &machine, const std::string &text)
{
    return machine.cabinet.console.find(text) != std::string::npos;
}
