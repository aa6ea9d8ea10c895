/// The usual ground of a test: to the product, a scratch folder is the root of the file system. With
/// verbs for what a scratch folder alone cannot hold or order.
#pragma once

#include "support/fake_kernel.h"
#include "support/scratch.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

/// Lets mknod make plain files, which takes no rights; one that exists is refused, as by a real kernel.
inline void make_nodes_as_files(FakeKernel &kernel, const Scratch &disk)
{
    kernel.on_mknod = [&disk](const char *path, auto...) {
        if (disk.has(path)) {
            errno = EEXIST;
            return -1;
        }
        disk.make_file(path);
        return 0;
    };
}

struct OnScratchDisk : testing::Test {
    /// Makes a block device node, or, for a user who may not, a file that stat calls one.
    void make_block_node(const std::string &path)
    {
        disk.make_folder(path.substr(0, path.rfind('/')));
        if (real_mknod(disk.at(path).c_str(), S_IFBLK | 0666, 0x07C8) == 0)
            return;
        disk.make_file(path);
        kernel.on_stat = [this, path](const char *asked, struct stat *status) {
            const int result = real_stat(kernel.at(asked).c_str(), status);
            if (asked == path)
                status->st_mode = S_IFBLK | 0666;
            return result;
        };
    }

    Scratch disk;
    FakeKernel kernel{disk.path()};
};

/// The working folder of a test, and the old one again afterwards.
struct WorkingFolder {
    explicit WorkingFolder(const std::string &path) : before(real_open(".", O_RDONLY | O_DIRECTORY, 0))
    {
        EXPECT_EQ(real_chdir(path.c_str()), 0);
    }
    ~WorkingFolder()
    {
        EXPECT_EQ(fchdir(before), 0);
        real_close(before);
    }
    int before;
};

/// What readdir hands out, in this order and with these types, for FakeKernel::on_readdir: one call after
/// another, whichever folder is being read.
struct Listing {
    Listing &add(const char *name, unsigned char type)
    {
        struct dirent entry = {};
        entry.d_type = type;
        strncpy(entry.d_name, name, sizeof entry.d_name - 1);
        entries.push_back(entry);
        return *this;
    }
    /// The end of one folder; what follows belongs to the next that is read.
    Listing &end()
    {
        return add("", DT_UNKNOWN);
    }

    struct dirent *operator()(DIR *)
    {
        if (given == entries.size())
            return nullptr;
        struct dirent *entry = &entries[given++];
        return entry->d_name[0] ? entry : nullptr;
    }
    std::vector<struct dirent> entries;
    size_t given = 0;
};

/// A qel_fs_hook that leaves "access /hook 0" in the records, so that its place among the calls shows.
inline void recorded_hook()
{
    EXPECT_EQ(access("/hook", F_OK), -1);
}
