// The production line of the tests.

#include "line.h"

#include <filesystem>
#include <fstream>
#include <random>

namespace fs = std::filesystem;

std::string kernel_of(size_t size)
{
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same in every run
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return bytes.replace(0x202, 4, "HdrS");
}

Line::Line()
{
    delivery.disk_bytes = 48 * mebibyte;
    delivery.kernel = at("vmlinux");
    write_file(delivery.kernel, kernel_of(300000));
    write_file(at("file"), kernel_of(100000));
    delivery.system_image = at("qel_usr.cramfs");
    make_system_image(delivery.system_image, {{"share/file", at("file")}});
    delivery.storage = at("storage");
    fs::create_directories(at("storage/data"));
    write_file(at("storage/qel_application_1"), "application");
    write_file(at("storage/data/A long name.txt"), "text");
}

std::string Line::at(const std::string &name) const
{
    return folder.path + "/" + name;
}

std::string Line::make_disk()
{
    make_installed_disk(at("disk.img"), delivery, [this](const std::string &step) { steps.push_back(step); });
    return at("disk.img");
}

std::string Line::make_stick()
{
    make_factory_stick(at("stick.img"), delivery, [this](const std::string &step) { steps.push_back(step); });
    return at("stick.img");
}

std::string Line::refusal()
{
    try {
        make_stick();
    } catch (const std::runtime_error &error) {
        std::string text = error.what();
        return text.substr(0, text.find('\n'));
    }
    return "";
}

std::vector<std::string> faults_of(const DiskCheck &check)
{
    std::vector<std::string> faults;
    for (const Finding &finding : check_disk(check))
        if (!finding.good)
            faults.push_back(finding.text);
    return faults;
}

void patch(const std::string &file, unsigned long long offset, const std::string &bytes)
{
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekp(static_cast<std::streamoff>(offset));
    stream << bytes;
}

unsigned long long start_of(const std::string &image, int number)
{
    return find_partition(image, number).offset;
}
