/// System messages: typed messages over the packet link. Some are numbered, confirmed, repeated or
/// answered.
///
/// core.h has the connection, sending and receiving; catalogue.h has one operation for each message;
/// wire.h reads and writes the fields of messages.
#pragma once

#include "qel_tolbrin/qel_sysmsg/catalogue.h"
#include "qel_tolbrin/qel_sysmsg/core.h"
#include "qel_tolbrin/qel_sysmsg/wire.h"
