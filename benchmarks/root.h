// Roots for process 1: what a cabinet has, as folders and files (subjects/loader_kernel.cpp).
#pragma once

#include <string>

constexpr const char *application = "/machine/hdc3/qel_application_1";
/// One that stays.
constexpr const char *lasting_application = "/machine/hdc3/qel_application_lasting";

/// A root for one process 1, removed with it. What is copied into it lies on the same file system: it is
/// linked.
struct Root {
    Root();
    ~Root();
    Root(const Root &) = delete;
    Root &operator=(const Root &) = delete;

    void add_file(const std::string &name, const std::string &content) const;
    void add_program(const std::string &host_file, const std::string &name) const;

    const std::string path;
};

/// What the loader finds in a cabinet: board driver, sound, the internal disk, no stick, and an application.
void equip(const Root &root, const std::string &application_file = application);
/// The same with a blank disk and a stick that has a whole delivery, and the tools of an install: miniunz is
/// real, the others, for which there is no disk here, do nothing.
void equip_for_install(const Root &root);
/// Busybox under the names that a start-up script calls.
void add_busybox(const Root &root);
