// A cabinet that is about to be installed.

#include "install_machine.h"

#include "factory/boot_file.h"
#include "factory/disk_check.h"
#include "images/programs.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

/// The real tool gets another name, and a script its own.
static void let_tools_tell(InstallMachine &machine)
{
    const std::string scripts = machine.parts.installer_scripts;
    for (const auto &[name, real] :
         {std::pair("sfdisk", scripts + "/sfdisk"), std::pair("mkdosfs", scripts + "/mkdosfs"),
          std::pair("syslinux", scripts + "/syslinux"),
          std::pair("miniunz", find_program(machine.parts, "miniunzip"))}) {
        const std::string moved = "/lib/tools/real_" + std::string(name);
        machine.ram_disk.push_back("file " + moved + " " + real + " 755 0 0");
        replace_tool(machine, "/bin/" + std::string(name), "exec " + moved + " \"$@\"");
    }
}

InstallMachine::InstallMachine(const std::string &target) : Machine(target)
{
    let_tools_tell(*this);
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
    write_file(program, read_file(machine.recorder));
    run_tool({"sh", "-c", "cd \"$0\" && zip -q storage.zip qel_application_1", machine.folder.path});
    machine.stick.push_back({"storage.zip", machine.folder.path + "/storage.zip"});
}

Delivery take_factory_stick(InstallMachine &machine)
{
    add_archive(machine);
    Delivery delivery;
    delivery.kernel = usual_boot_file(machine.parts);
    delivery.system_image = machine.folder.path + "/qel_usr.cramfs";
    delivery.storage = machine.folder.path + "/storage.zip";
    machine.setup.kernel.clear(); // from here on there is only what is on the stick, and then on the disk
    machine.setup.stick = machine.folder.path + "/stick.img";
    machine.setup.start_from_stick = true;
    make_factory_stick(machine.setup.stick, delivery, [](const std::string &) {});
    return delivery;
}

void take_telling_loader(Machine &machine)
{
    machine.ram_disk.push_back("file /sbin/qel_application_loader " MACHINE_TEST_TELLING_LOADER " 755 0 0");
}

void replace_tool(Machine &machine, const std::string &tool, const std::string &line)
{
    std::string script = file_with(machine, "tool_" + fs::path(tool).filename().string(),
                                   "#!/bin/sh\necho tool $0 \"$@\" >/cabinet/note\n" + line + "\n");
    machine.ram_disk.push_back("file " + tool + " " + script + " 755 0 0");
}

void start_install(InstallMachine &machine)
{
    if (!machine.stick.empty())
        insert_stick(machine, machine.stick);
    start(machine);
}

void start_install_from_slow_stick(InstallMachine &machine, int bytes_per_second)
{
    expect_stick(machine);
    start(machine);
    plug_in_slow_stick(machine, machine.stick, bytes_per_second);
}

std::string wait_for_stop(Machine &machine)
{
    const std::string mark = "stopped ";
    std::string stop;
    auto stopped = [&] {
        for (const Event &event : machine.cabinet.events)
            if (event.kind == Event::note && event.text.starts_with(mark))
                stop = event.text.substr(mark.size());
        return !stop.empty();
    };
    if (!wait_until(machine.cabinet, stopped, patience))
        return "";
    const std::string code = wait_until_parked(machine);
    const std::string line = code.substr(std::min(code.size(), code.find_first_of("0123456789")));
    return stop.find(":" + line + " ") == std::string::npos ? stop + ", but parked at " + code : stop;
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

std::vector<std::string> tools_of(const InstallMachine &machine)
{
    const std::string mark = "tool ";
    std::vector<std::string> tools;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::note && event.text.starts_with(mark))
            tools.push_back(event.text.substr(mark.size()));
    return tools;
}

bool shows(const Machine &machine, const std::string &text)
{
    return machine.cabinet.console.find(text) != std::string::npos;
}
