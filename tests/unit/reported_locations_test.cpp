// Every check whose place is fixed, in one table: what it reports is quoted in field notes for years, so
// neither text, unit nor line may move. Each row provokes its check. The function stands there to be
// compared where a fatal error prints it, and for the reader elsewhere.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_application_loader/application.h"
#include "qel_application_loader/installer.h"
#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <gmock/gmock.h>

#include <set>

namespace
{

/// The world of one row: a scratch disk, and a kernel that mounts, makes nodes and has children.
struct Ground {
    Ground()
    {
        kernel.on_mount = [](auto...) { return 0; };
        kernel.on_umount = [](auto...) { return 0; };
        kernel.on_mknod = [](auto...) { return 0; };
        kernel.on_sync = [] {};
        kernel.on_dup2 = [](int, int to) { return to; };
        kernel.on_execve = [](auto...) {
            errno = ENOENT;
            return -1;
        };
        end_children_with(0);
    }
    /// fork gives a child that does not exist, and waitpid this status word for it.
    void end_children_with(int word)
    {
        kernel.on_fork = [] { return 4711; };
        kernel.on_waitpid = [word](pid_t process, int *status, int) {
            *status = word;
            return process;
        };
    }
    /// The child's side of a fork happens in this process.
    void be_the_child()
    {
        kernel.on_fork = [] { return 0; };
    }
    void list(const char *name)
    {
        kernel.on_readdir = Listing().add(name, DT_REG);
    }

    Scratch disk;
    FakeKernel kernel{disk.path()};
};

struct Row {
    const char *function;
    const char *text; ///< of the expression; "0" for a fatal error
    int line;
    void (*provoke)(Ground &ground);
    const char *message = nullptr; ///< of a fatal error
    const char *unit = filesystem_unit;
    const char *cannot_be_provoked = nullptr; ///< why
};

} // namespace

static constexpr Row assertion(const char *function, const char *text, int line, void (*provoke)(Ground &))
{
    return {.function = function, .text = text, .line = line, .provoke = provoke};
}

static constexpr Row loader_assertion(const char *function, const char *text, int line,
                                      void (*provoke)(Ground &))
{
    return {.function = function, .text = text, .line = line, .provoke = provoke, .unit = loader_unit};
}

static constexpr Row fatal(const char *function, const char *message, int line, void (*provoke)(Ground &))
{
    return {.function = function, .text = "0", .line = line, .provoke = provoke, .message = message};
}

static constexpr Row impossible(const char *function, const char *text, int line, const char *reason)
{
    return {
        .function = function, .text = text, .line = line, .provoke = nullptr, .cannot_be_provoked = reason};
}

#define NOT_ABSOLUTE "Path is not absolute: \"a\"\n"
#define NOT_VALID    "Path is not valid: \"/a/\"\n"
#define NOT_EEXIST   "(*__errno_location ()) == 17"
#define STATUS_WORD                                                                                          \
    "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = (status) }).__i)))"

static char buffer[1000];
static char text[100];

/// A text that may be written.
static char *writable(const char *content)
{
    snprintf(text, sizeof text, "%s", content);
    return text;
}

static const char *const no_arguments[] = {"/bin/x", nullptr};

static void run_checked(const char *input_text)
{
    qel_exec_wait_checked("/bin/x", no_arguments, nullptr, input_text);
}

static void run_unchecked(const char *input_text)
{
    qel_exec_wait("/bin/x", no_arguments, nullptr, input_text);
}

static void capture_wine()
{
    qel_wine_exec_capture("x", nullptr, 0);
}

static void walk(const char *src, const char *dst_root)
{
    qel_recurse_files_in_folder(src, dst_root, nullptr, nullptr);
}

static void measure(const char *path, int64_t *size)
{
    qel_get_folder_size_with_threshold(path, 0, size);
}

static const Row rows[] = {
    // Paths
    assertion("qel_filename_make_valid", "filename", 103, [](Ground &) { qel_filename_make_valid(nullptr); }),
    assertion("_qel_path_root_len", "s", 117, [](Ground &) { _qel_path_root_len(nullptr, 1); }),
    assertion("_qel_path_is_absolute", "s", 213, [](Ground &) { _qel_path_is_absolute(nullptr, 0); }),
    assertion("qel_dos_path_is_absolute", "s", 221, [](Ground &) { qel_dos_path_is_absolute(nullptr); }),
    assertion("qel_unix_path_is_absolute", "s", 228, [](Ground &) { qel_unix_path_is_absolute(nullptr); }),
    assertion("qel_path_is_absolute", "s", 235, [](Ground &) { qel_path_is_absolute(nullptr); }),
    assertion("qel_path_to_dos", "path", 247, [](Ground &) { qel_path_to_dos(nullptr); }),
    assertion("qel_path_to_dos", "_qel_path_is_valid(path, 1)", 254,
              [](Ground &) { qel_path_to_dos(writable("/")); }),
    assertion("qel_path_normalize", "path", 264, [](Ground &) { qel_path_normalize(nullptr); }),
    assertion("qel_path_normalize_strict", "_qel_path_is_valid(path, 1) || _qel_path_is_valid(path, 0)", 299,
              [](Ground &) { qel_path_normalize_strict(writable("c:")); }),
    assertion("qel_strip_trailing_slash", "path", 1064, [](Ground &) { qel_strip_trailing_slash(nullptr); }),
    fatal("qel_strip_trailing_slash", "Path is not valid: \"\"\n", 1072,
          [](Ground &) { qel_strip_trailing_slash(writable("/")); }),
    fatal("qel_parent_dir", NOT_VALID, 1128, [](Ground &) { qel_parent_dir("/a/", buffer, 1000); }),
    assertion("qel_parent_dir", "parent_dir", 1129, [](Ground &) { qel_parent_dir("/a", nullptr, 1000); }),
    assertion("qel_parent_dir", "!qel_path_is_root_dir(path)", 1131,
              [](Ground &) { qel_parent_dir("/", buffer, 1000); }),
    assertion("qel_parent_dir", "cp", 1134, [](Ground &) { qel_parent_dir("a", buffer, 1000); }),
    assertion("qel_parent_dir", "parent_dir_size >= (parent_dir_len + 2)", 1137,
              [](Ground &) { qel_parent_dir("/a/b", buffer, 3); }),
    fatal("qel_child_path", NOT_ABSOLUTE, 1150, [](Ground &) { qel_child_path("a", "b", buffer, 1000); }),
    fatal("qel_child_path", NOT_VALID, 1151, [](Ground &) { qel_child_path("/", "/a/", buffer, 1000); }),
    assertion("qel_child_path", "*child != '/'", 1152,
              [](Ground &) { qel_child_path("/a", "/b", buffer, 1000); }),
    assertion("qel_sibling_path", "!qel_path_is_root_dir(path)", 1165,
              [](Ground &) { qel_sibling_path("/", "b", buffer, 1000); }),
    fatal("qel_sibling_path", NOT_ABSOLUTE, 1166, [](Ground &) { qel_sibling_path("a", "b", buffer, 1000); }),
    fatal("qel_sibling_path", NOT_VALID, 1167, [](Ground &) { qel_sibling_path("/x", "/a/", buffer, 1000); }),
    assertion("qel_sibling_path", "sibling[0] != '/'", 1168,
              [](Ground &) { qel_sibling_path("/a", "/b", buffer, 1000); }),
    assertion("qel_sibling_path", "slash", 1173, [](Ground &) { qel_sibling_path("/a", "b", buffer, 1); }),
    fatal("qel_filename_part", NOT_VALID, 1182, [](Ground &) { qel_filename_part("/a/", buffer, 1000); }),
    assertion("qel_filename_part", "filename", 1183,
              [](Ground &) { qel_filename_part("/a", nullptr, 1000); }),
    assertion("qel_filename_part", "!qel_path_is_root_dir(path)", 1185,
              [](Ground &) { qel_filename_part("/", buffer, 1000); }),
    assertion("qel_filename_part", "cp", 1188, [](Ground &) { qel_filename_part("a", buffer, 1000); }),
    assertion("qel_path_put_extension", "ext", 1196,
              [](Ground &) { qel_path_put_extension(nullptr, text, 100); }),
    assertion("qel_path_put_extension", "ext[0] == '.'", 1197,
              [](Ground &) { qel_path_put_extension("x", text, 100); }),
    fatal("qel_path_put_extension", NOT_VALID, 1198,
          [](Ground &) { qel_path_put_extension(".x", writable("/a/"), 100); }),
    assertion("qel_path_put_extension", "path_size > 0", 1199,
              [](Ground &) { qel_path_put_extension(".x", writable("/a"), 0); }),

    // Files and folders
    assertion("qel_read_block", "buf", 307, [](Ground &) { qel_read_block(nullptr, 1, stdin); }),
    assertion("qel_read_block", "file", 308, [](Ground &) { qel_read_block(buffer, 1, nullptr); }),
    assertion("qel_write_block", "buf", 337, [](Ground &) { qel_write_block(nullptr, 1, stdin); }),
    assertion("qel_write_block", "file", 338, [](Ground &) { qel_write_block(buffer, 1, nullptr); }),
    assertion("qel_fopen", "path", 399, [](Ground &) { qel_fopen(nullptr); }),
    fatal("qel_fopen", NOT_ABSOLUTE, 400, [](Ground &) { qel_fopen("a"); }),
    assertion("qel_fopen", "f", 403, [](Ground &) { qel_fopen("/missing"); }),
    assertion("qel_exists", "path", 414, [](Ground &) { qel_exists(nullptr); }),
    fatal("qel_exists", NOT_ABSOLUTE, 415, [](Ground &) { qel_exists("a"); }),
    assertion("qel_opendir", "path", 428, [](Ground &) { qel_opendir(nullptr); }),
    fatal("qel_opendir", NOT_ABSOLUTE, 429, [](Ground &) { qel_opendir("a"); }),
    assertion("qel_opendir", "dir", 433, [](Ground &) { qel_opendir("/missing"); }),
    assertion("qel_mkdir", "path", 443, [](Ground &) { qel_mkdir(nullptr); }),
    fatal("qel_mkdir", NOT_ABSOLUTE, 444, [](Ground &) { qel_mkdir("a"); }),
    fatal("find_file_no_case", NOT_VALID, 459, [](Ground &) { find_file_no_case("/a/", "x", buffer, 1000); }),
    assertion("find_file_no_case", "search_name", 460,
              [](Ground &) { find_file_no_case("/a", nullptr, buffer, 1000); }),
    assertion("find_file_no_case", "*search_name", 461,
              [](Ground &) { find_file_no_case("/a", "", buffer, 1000); }),
    assertion("find_file_no_case", "result_path", 462,
              [](Ground &) { find_file_no_case("/a", "x", nullptr, 1000); }),
    assertion("find_file_no_case", "result_path_size > 0", 463,
              [](Ground &) { find_file_no_case("/a", "x", buffer, 0); }),
    fatal("qel_copy_file", NOT_ABSOLUTE, 583, [](Ground &) { qel_copy_file("/b", "a"); }),
    fatal("qel_copy_file", NOT_ABSOLUTE, 584, [](Ground &) { qel_copy_file("a", "/b"); }),
    assertion("qel_get_folder_size_with_threshold", "path", 644,
              [](Ground &) {
                  int64_t size = 0;
                  measure(nullptr, &size);
              }),
    fatal("qel_get_folder_size_with_threshold", NOT_ABSOLUTE, 645,
          [](Ground &) {
              int64_t size = 0;
              measure("a", &size);
          }),
    assertion("qel_get_folder_size_with_threshold", "size", 646, [](Ground &) { measure("/a", nullptr); }),
    impossible("qel_get_folder_size", "ok", 705, "without a threshold no walk ends early, whatever fails"),
    fatal("qel_get_disk_space", NOT_ABSOLUTE, 784,
          [](Ground &) { qel_get_disk_space("a", nullptr, nullptr); }),
    assertion("qel_get_disk_space", "!err", 814,
              [](Ground &ground) {
                  ground.kernel.fail("statfs", EIO);
                  qel_get_disk_space("/", nullptr, nullptr);
              }),
    assertion("qel_create_folder_and_parents", "folder", 901,
              [](Ground &) { qel_create_folder_and_parents(nullptr); }),
    fatal("qel_create_folder_and_parents", NOT_ABSOLUTE, 902,
          [](Ground &) { qel_create_folder_and_parents(writable("a")); }),
    assertion("qel_create_parent_folder_and_parents", "path", 951,
              [](Ground &) { qel_create_parent_folder_and_parents(nullptr); }),
    fatal("qel_create_parent_folder_and_parents", NOT_ABSOLUTE, 952,
          [](Ground &) { qel_create_parent_folder_and_parents(writable("a")); }),
    assertion("qel_file_exists", "file", 1081, [](Ground &) { qel_file_exists(nullptr); }),
    fatal("qel_file_exists", NOT_ABSOLUTE, 1082, [](Ground &) { qel_file_exists("a"); }),
    assertion("qel_file_is_dir", "file", 1093, [](Ground &) { qel_file_is_dir(nullptr); }),
    fatal("qel_file_is_dir", NOT_ABSOLUTE, 1094, [](Ground &) { qel_file_is_dir("a"); }),
    assertion("qel_get_current_dir", "result", 1108, [](Ground &) { qel_get_current_dir(buffer, 1); }),
    assertion("qel_set_current_dir", "path", 1119, [](Ground &) { qel_set_current_dir(nullptr); }),
    assertion("qel_set_current_dir", "!err", 1122, [](Ground &) { qel_set_current_dir("/missing"); }),

    // Trees
    assertion("qel_rmdircontents", "folder", 974, [](Ground &) { qel_rmdircontents(nullptr); }),
    fatal("qel_rmdircontents", NOT_ABSOLUTE, 975, [](Ground &) { qel_rmdircontents("a"); }),
    assertion("qel_rmdirtree", "folder", 1044, [](Ground &) { qel_rmdirtree(nullptr); }),
    fatal("qel_rmdirtree", NOT_ABSOLUTE, 1045, [](Ground &) { qel_rmdirtree("a"); }),
    fatal("qel_cpdirtree_with_foo", NOT_ABSOLUTE, 1223, [](Ground &) { qel_cpdirtree("a", "/b"); }),
    fatal("qel_cpdirtree_with_foo", NOT_ABSOLUTE, 1224, [](Ground &) { qel_cpdirtree("/b", "a"); }),
    assertion("qel_cpdirtree_with_foo", "!copy_foo_count || copy_foo", 1225,
              [](Ground &) { qel_cpdirtree_with_foo("/a", "/b", nullptr, 1); }),
    assertion("qel_recurse_files_in_folder", "src", 1255, [](Ground &) { walk(nullptr, "/b"); }),
    assertion("qel_recurse_files_in_folder", "dst_root", 1256, [](Ground &) { walk("/a", nullptr); }),
    fatal("qel_recurse_files_in_folder", NOT_ABSOLUTE, 1257, [](Ground &) { walk("a", "/b"); }),
    fatal("qel_recurse_files_in_folder", NOT_VALID, 1258, [](Ground &) { walk("/b", "/a/"); }),
    fatal("qel_cpdircontents", NOT_ABSOLUTE, 1295, [](Ground &) { qel_cpdircontents("a", "/b"); }),
    fatal("qel_cpdircontents", NOT_ABSOLUTE, 1296, [](Ground &) { qel_cpdircontents("/b", "a"); }),
    fatal("qel_mergedircontents", NOT_ABSOLUTE, 1315, [](Ground &) { qel_mergedircontents("a", "/b"); }),
    fatal("qel_mergedircontents", NOT_ABSOLUTE, 1316, [](Ground &) { qel_mergedircontents("/b", "a"); }),

    // Children and links
    assertion("qel_exec_wait", "!err", 1686,
              [](Ground &ground) {
                  ground.kernel.fail("socketpair", EMFILE);
                  run_unchecked(nullptr);
              }),
    assertion("qel_exec_wait, in the child", "0", 1694,
              [](Ground &ground) {
                  ground.be_the_child();
                  run_unchecked(nullptr);
              }),
    assertion("qel_exec_wait", "pid != -1", 1696,
              [](Ground &ground) {
                  ground.kernel.fail("fork", EAGAIN);
                  run_unchecked(nullptr);
              }),
    assertion("qel_exec_wait", "n == data_len", 1702,
              [](Ground &ground) {
                  ground.kernel.shorten_nth("write", 1, 1);
                  run_unchecked("text");
              }),
    assertion("qel_wine_exec_capture", "!err", 1731,
              [](Ground &ground) {
                  ground.kernel.fail_nth("socketpair", 1, EMFILE);
                  capture_wine();
              }),
    assertion("qel_wine_exec_capture", "!err", 1734,
              [](Ground &ground) {
                  ground.kernel.fail_nth("socketpair", 2, EMFILE);
                  capture_wine();
              }),
    assertion("qel_wine_exec_capture, in the child", "0", 1744,
              [](Ground &ground) {
                  ground.be_the_child();
                  capture_wine();
              }),
    assertion("qel_wine_exec_capture", "pid != -1", 1746,
              [](Ground &ground) {
                  ground.kernel.fail("fork", EAGAIN);
                  capture_wine();
              }),
    // No kernel gives more than it was asked for; this one does.
    assertion("qel_wine_exec_capture", "outbuf_count < out_size", 1762,
              [](Ground &ground) {
                  ground.kernel.on_read = [](auto...) { return 10240; };
                  capture_wine();
              }),
    assertion("qel_symlink", "name", 1852, [](Ground &) { qel_symlink(nullptr, "/b"); }),
    assertion("qel_symlink", "*name", 1853, [](Ground &) { qel_symlink("", "/b"); }),
    assertion("qel_symlink", "target", 1854, [](Ground &) { qel_symlink("/a", nullptr); }),
    assertion("qel_symlink", "*target", 1855, [](Ground &) { qel_symlink("/a", ""); }),
    assertion("qel_symlink", NOT_EEXIST, 1892, [](Ground &) { qel_symlink("/a", "/missing/b"); }),
    assertion("qel_exec_wait_checked", "!err", 2093,
              [](Ground &ground) {
                  ground.kernel.fail("socketpair", EMFILE);
                  run_checked(nullptr);
              }),
    assertion("qel_exec_wait_checked, in the child", "0", 2101,
              [](Ground &ground) {
                  ground.be_the_child();
                  run_checked(nullptr);
              }),
    assertion("qel_exec_wait_checked", "pid != -1", 2103,
              [](Ground &ground) {
                  ground.kernel.fail("fork", EAGAIN);
                  run_checked(nullptr);
              }),
    assertion("qel_exec_wait_checked", "n == data_len", 2109,
              [](Ground &ground) {
                  ground.kernel.shorten_nth("write", 1, 1);
                  run_checked("text");
              }),
    assertion("qel_exec_wait_checked", STATUS_WORD " & 0x7f) == 0)", 2116,
              [](Ground &ground) {
                  ground.end_children_with(0x0009);
                  run_checked(nullptr);
              }),
    assertion("qel_exec_wait_checked", STATUS_WORD " & 0xff00) >> 8) == 0", 2117,
              [](Ground &ground) {
                  ground.end_children_with(0x0100);
                  run_checked(nullptr);
              }),

    // Device nodes
    assertion("qel_make_lpc_node", "!err", 1914,
              [](Ground &ground) {
                  ground.kernel.fail("mknod", EEXIST);
                  qel_make_lpc_node("/dev/x", 1, 2);
              }),
    assertion("qel_make_node_from_sysfs", "num_matches == 2", 1937,
              [](Ground &ground) {
                  ground.disk.make_file("/sys/x/dev", "8");
                  qel_make_node_from_sysfs("/sys/x", "/dev", S_IFBLK);
              }),
    assertion("qel_make_node_from_sysfs", "!err", 1947,
              [](Ground &ground) {
                  ground.disk.make_file("/sys/x/dev", "8:0");
                  ground.kernel.fail("mknod", EPERM);
                  qel_make_node_from_sysfs("/sys/x", "/dev", S_IFBLK);
              }),
    assertion("qel_make_sound_nodes", NOT_EEXIST, 2288, [](Ground &) { qel_make_sound_nodes(); }),
    assertion("qel_make_lpc_nodes", "major", 2321,
              [](Ground &ground) {
                  ground.disk.make_file("/proc/devices");
                  qel_make_lpc_nodes();
              }),
    assertion("qel_make_disk_nodes", NOT_EEXIST, 2351, [](Ground &) { qel_make_disk_nodes("sd"); }),

    // Mounts
    assertion("qel_mount", NOT_EEXIST, 1959,
              [](Ground &) { qel_mount("vfat", "/dev/x", "/missing/x", 0, nullptr); }),
    assertion("qel_mount", "!err", 1964,
              [](Ground &ground) {
                  ground.kernel.fail("mount", ENODEV);
                  qel_mount("vfat", "/dev/x", "/x", 0, nullptr);
              }),
    assertion("qel_mount_usb_disks", NOT_EEXIST, 2002,
              [](Ground &ground) {
                  ground.kernel.fail("mkdir", EROFS);
                  qel_mount_usb_disks("sd");
              }),
    assertion("qel_mount_usb_disks", NOT_EEXIST, 2017,
              [](Ground &ground) {
                  ground.disk.make_file("/dev/disk/sda");
                  ground.kernel.fail_nth("mkdir", 2, ENOSPC);
                  qel_mount_usb_disks("sd");
              }),

    // Windows applications
    assertion("qel_install_windows_apps", NOT_EEXIST, 2217,
              [](Ground &ground) {
                  ground.disk.make_file("/storage/archives/game.arc");
                  ground.kernel.fail("mkdir", EROFS);
                  qel_install_windows_apps();
              }),

    // The loader
    loader_assertion("qel_install", "qel_copy_file(\"/dev/disk/hdc2\", \"/disk/sda1/qel_usr.cramfs\")", 144,
                     [](Ground &ground) {
                         ground.disk.make_folder("/dev");
                         ground.disk.make_folder("/sys/block");
                         qel_install();
                     }),
    loader_assertion("qel_install", "qel_copy_file(\"/boot/vmlinux\", \"/disk/sda1/vmlinux\")", 150,
                     [](Ground &ground) {
                         ground.disk.make_folder("/dev/disk");
                         ground.disk.make_folder("/sys/block");
                         ground.disk.make_file("/disk/sda1/qel_usr.cramfs", "image");
                         qel_install();
                     }),
    loader_assertion("main", "*app_file", 189,
                     [](Ground &ground) {
                         ground.disk.make_folder("/storage");
                         ground.disk.make_folder("/disk");
                         qel_application application;
                         qel_find_application(&application);
                     }),
    loader_assertion("main", "qel_copy_file(storage_path, app_path)", 197,
                     [](Ground &ground) {
                         ground.disk.make_folder("/storage");
                         ground.disk.make_file("/disk/sda1/qel_application_1");
                         ground.kernel.fail("open", EIO);
                         qel_application application;
                         qel_find_application(&application);
                     }),
};

TEST(ReportedLocations, OfEveryNumberedCheckStayPut)
{
    for (const Row &row : rows) {
        SCOPED_TRACE(row.function + std::string(" ") + std::to_string(row.line));
        if (row.cannot_be_provoked)
            continue;
        Ground ground;
        const auto provoke = [&] { row.provoke(ground); };
        if (row.message)
            EXPECT_TRUE(stops_with_message(row.message, row.function, row.unit, row.line, provoke));
        else
            EXPECT_TRUE(stops_at(row.text, row.unit, row.line, provoke));
    }
}

TEST(ReportedLocations, AreEachOneCheckAndAllButOneCanBeProvoked)
{
    std::set<std::pair<std::string, int>> places;
    std::vector<int> unprovoked;
    for (const Row &row : rows) {
        EXPECT_TRUE(places.insert({row.unit, row.line}).second) << row.line;
        EXPECT_NE(row.provoke == nullptr, row.cannot_be_provoked == nullptr) << row.line;
        if (row.cannot_be_provoked)
            unprovoked.push_back(row.line);
    }
    EXPECT_EQ(places.size(), 121U);
    EXPECT_THAT(unprovoked, testing::ElementsAre(705));
}
