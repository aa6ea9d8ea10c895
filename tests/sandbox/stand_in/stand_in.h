/// The stand-in kernel: what the linker puts between the product and libc in a sandbox.
///
/// Most calls go to the host's kernel as they are; each is recorded in the transcript. What the host has
/// not got is played: file systems of the cabinet are folders of /machine bound to their mount points,
/// the board driver's nodes are answered by a scripted board, block devices are files. Folders are
/// listed in the order of their names, so that a transcript is the same on every kernel.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

// ---- The transcript ----

/// Writes a record. errno stays.
__attribute__((format(printf, 1, 2))) void record(const char *format, ...);
/// The same for a call that is over: appends " = ERROR" when it failed.
__attribute__((format(printf, 2, 3))) void record_call(int failed, const char *format, ...);
/// The same, unless it would repeat the last record of this process: for calls that are made in a loop.
__attribute__((format(printf, 2, 3))) void record_poll(int failed, const char *format, ...);
/// Writes the bytes as a quoted text into `text`, and returns it.
const char *quoted(const void *bytes, size_t count, char *text, size_t size);

// ---- Calls that are to fail ----

/// Returns 1, with errno set, when the test wants this call of `name` to fail.
int is_planned_to_fail(const char *name);

// ---- What is played ----

int stand_in_mount(const char *device, const char *folder, const char *type, unsigned long flags,
                   const void *data);

/// Opens a node of the board or a block device; anything else is opened by the host.
int stand_in_open(const char *path, int flags, mode_t mode);
/// The name of the board device behind a descriptor, null when there is none.
const char *board_device(int file);
ssize_t board_read(int file, void *buffer, size_t size);
ssize_t board_write(int file, const void *buffer, size_t size);
void board_close(int file);

DIR *stand_in_opendir(const char *path);
struct dirent *stand_in_readdir(DIR *folder);
int stand_in_closedir(DIR *folder);

// ---- The host's kernel, for the stand-in itself ----

extern "C" {
int real_mount(const char *, const char *, const char *, unsigned long, const void *) __asm__("__real_mount");
int real_open64(const char *, int, ...) __asm__("__real_open64");
int real_stat64(const char *, struct stat *) __asm__("__real_stat64");
ssize_t real_read(int, void *, size_t) __asm__("__real_read");
ssize_t real_write(int, const void *, size_t) __asm__("__real_write");
int real_close(int) __asm__("__real_close");
DIR *real_opendir(const char *) __asm__("__real_opendir");
struct dirent *real_readdir64(DIR *) __asm__("__real_readdir64");
int real_closedir(DIR *) __asm__("__real_closedir");
}
