// QEMU's monitor: what is done to the machine from outside while it runs.
#pragma once

#include "machine/drive/cabinet.h"

#include <nlohmann/json.hpp>

/// Executes one QMP command and returns its result. Throws when QEMU refuses it.
nlohmann::json monitor(Cabinet &cabinet, const std::string &command, const nlohmann::json &arguments = {});

/// Plugs a stick in while the machine runs; `name` is free and serves to pull it out again. Every image
/// needs a name of its own.
void plug_in_stick(Cabinet &cabinet, const std::string &image, const std::string &name = "stick");

/// Pulls out a stick, also the one that was there at power-on, whose name is "stick".
void pull_out_stick(Cabinet &cabinet, const std::string &name = "stick");
