// The whole way of a cabinet, in simulation: it starts from the factory stick, installs itself, and then
// starts from its own disk.
#pragma once

#include "common/target.h"
#include "factory/stick.h"

/// Shows each stage; makes a stick of the delivery first when `stick` is empty. True when the disk passed
/// the checker and its application ran from it.
bool try_install(const Hardware &hardware, const std::string &stick, const Delivery &delivery,
                 const Progress &progress);
