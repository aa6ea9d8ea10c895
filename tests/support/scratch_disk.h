/// The usual ground of a test: to the product, a scratch folder is the root of the file system.
#pragma once

#include "support/fake_kernel.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

class OnScratchDisk : public testing::Test
{
  protected:
    Scratch disk;
    FakeKernel kernel{disk.path()};
};
