// The production line's commands on this source tree's own kernel and system image, as docs/installing.md
// calls them.

#include "machine_test.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::EndsWith;
using testing::HasSubstr;

TEST(ProductionLine, InstallsACabinetFromAStickThatItHasMade)
{
    ScratchFolder folder;
    const std::string stick = folder.path + "/stick.img", storage = folder.path + "/storage";
    std::filesystem::create_directory(storage);
    std::filesystem::copy_file(find_parts(tested_target()).sample_application,
                               storage + "/qel_application_1");

    for (const std::vector<std::string> &options :
         {std::vector<std::string>(), {"--storage", storage}, {"--storage", storage, "--disk-size", "256"}}) {
        std::vector<std::string> command = {MACHINE_TEST_FACTORY, "make-stick", stick};
        command.insert(command.end(), options.begin(), options.end());
        EXPECT_THAT(run_tool(command), EndsWith("wipes its internal disk without asking.\n"));
    }
    std::string output = run_tool({MACHINE_TEST_FACTORY, "install", "--stick", stick, "--disk-size", "256"});
    EXPECT_THAT(output, HasSubstr("console  Install complete.\n"));
    EXPECT_THAT(output, HasSubstr("start    /storage/qel_application_1 "));
    EXPECT_THAT(output, EndsWith("\nthe cabinet runs from the disk that it installed\n"));
}
