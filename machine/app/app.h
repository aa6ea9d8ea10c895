// What ./run and ./run update share.
#pragma once

#include "images/parts.h"
#include "machine/drive/cabinet.h"
#include "machine/view/view.h"

#include <string>

struct Options {
    int mode = 1;
    double seconds = 0; ///< 0 with ./run: until Ctrl-C
    std::string target = targets.front();
    std::string lcd_screenshot;
    std::string record;
    bool plain = false;
    bool print_qemu = false;
    unsigned memory_mb = 256;
    std::string kernel; ///< empty: the one of this source tree

    // ./run alone
    std::string stick;
    std::string application;
    std::string system_image; ///< an image or a folder
    std::string storage;      ///< a folder or an archive
    std::string disk;
    bool disk_in_place = false;
    bool shell = false;
    std::string screenshot;
    std::string link;

    // ./run update alone
    std::string updater;
};

/// What both start from: the RAM disk, made in `folder`, and the place of the internal disk there.
CabinetSetup common_setup(const Options &options, const Parts &parts, const std::string &folder);

/// Shows what the cabinet does from now on, on a panel if the options and the terminal permit one, and
/// switches the power on.
void start(Cabinet &cabinet, const CabinetSetup &setup, const Options &options, View &view,
           const std::string &how_to_end);

/// Gives the terminal back, and writes and prints what the options want at the end.
void finish(const Cabinet &cabinet, const Options &options, View &view);

/// Both return true when all that was asked for happened. They make their images in `folder`.
bool run(const Options &options, const Parts &parts, const std::string &folder);
bool update(const Options &options, const Parts &parts, const std::string &folder);
