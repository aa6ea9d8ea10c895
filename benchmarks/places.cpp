// Paths of the builds, and a tmpfs.

#include "places.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>

#include <filesystem>
#include <stdexcept>

namespace
{

const char *const scratch_root = "/tmp/qel_bench";

void require(bool is_fine, const std::string &what)
{
    if (!is_fine)
        throw std::runtime_error(what + ": " + strerror(errno));
}

} // namespace

std::string loader_of(const std::string &preset)
{
    return BENCH_PROJECT "/build/" + preset + "/src/qel_application_loader.stripped";
}

std::string subject(const std::string &name)
{
    return BENCH_PROJECT "/build/bench-subjects/benchmarks/" + name;
}

std::string source(const std::string &name)
{
    return BENCH_PROJECT "/benchmarks/" + name;
}

void make_scratch()
{
    require(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
            "no mount namespace (the benchmarks need root)");
    std::filesystem::create_directories(scratch_root);
    require(mount("tmpfs", scratch_root, "tmpfs", 0, "mode=0755,nr_inodes=0") == 0, scratch_root);
}

std::string scratch(const std::string &name)
{
    return std::string(scratch_root) + "/" + name;
}
