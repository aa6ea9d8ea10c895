// The write log and the disks that cuts leave, on logs that are written here byte by byte.

#include "power_cuts.h"

#include <gmock/gmock.h>

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

const size_t sector = 512;
const unsigned flush = 1, through = 2, discard = 4, note = 8;

std::string little_endian(unsigned long long number, size_t bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes; ++i)
        text += static_cast<char>(number >> 8 * i & 0xff);
    return text;
}

std::string padded(std::string text)
{
    text.resize((text.size() + sector - 1) / sector * sector);
    return text;
}

/// One entry of a log. Its sectors are filled with `letters`, one for each.
struct Entry {
    unsigned flags;
    unsigned long long first;
    std::string letters;
    std::string text = ""; ///< of a note
    unsigned long long discarded = 0;
};

std::string bytes_of(const Entry &entry)
{
    std::string bytes =
        padded(little_endian(entry.first, 8) + little_endian(entry.letters.size() + entry.discarded, 8) +
               little_endian(entry.flags, 8) + little_endian(entry.text.size(), 8) + entry.text);
    for (char letter : entry.letters)
        bytes += std::string(sector, letter);
    return bytes;
}

/// A log in a file, and disks made from it.
struct Logged {
    ScratchFolder folder;
    std::string disk = folder.path + "/disk", before = folder.path + "/before";
    WriteLog log;

    explicit Logged(const std::vector<Entry> &entries)
    {
        std::string bytes = padded(little_endian(0x6a736677736872, 8) + little_endian(1, 8) +
                                   little_endian(entries.size(), 8) + little_endian(sector, 4));
        for (const Entry &entry : entries)
            bytes += bytes_of(entry);
        write_file(folder.path + "/log", bytes);
        write_file(before, std::string(8 * sector, '.'));
        log = read_write_log(folder.path + "/log");
    }

    /// The first byte of each of the disk's eight sectors after a cut.
    std::string after(const Cut &cut, unsigned seed = 1)
    {
        std::mt19937 chance(seed);
        make_cut_disk(disk, before, log, cut, chance);
        const std::string bytes = read_file(disk);
        std::string letters;
        for (size_t at = 0; at < bytes.size(); at += sector) {
            EXPECT_EQ(bytes.substr(at, sector), std::string(sector, bytes[at]));
            letters += bytes[at];
        }
        return letters;
    }

    /// All disks that a cut of this kind leaves, in 60 tries.
    std::set<std::string> all_after(const Cut &cut)
    {
        std::set<std::string> disks;
        for (unsigned seed = 1; seed <= 60; ++seed)
            disks.insert(after(cut, seed));
        return disks;
    }
};

} // namespace

TEST(WriteLog, HasWritesAndFlushesInTheirOrder)
{
    const Logged logged({{0, 2, "ab"}, {flush, 0, ""}, {flush | through, 7, "c"}});
    std::vector<std::vector<unsigned long long>> entries;
    for (const DiskWrite &write : logged.log.entries)
        entries.push_back({write.flush, write.through, write.offset, write.size, write.log_offset});
    // In the log: its head, an entry's head and two sectors, a head, a head and a sector.
    EXPECT_THAT(entries,
                ElementsAre(ElementsAre(0U, 0U, 1024U, 1024U, 1024U), ElementsAre(1U, 0U, 0U, 0U, 2560U),
                            ElementsAre(1U, 1U, 3584U, 512U, 3072U)));
}

TEST(WriteLog, PassesOverNotesAndDiscardedSectorsButNotOverTheirFlush)
{
    Logged logged({{note, 0, "", "a note"},
                   {0, 0, "a"},
                   {discard, 0, "", "", 4},
                   {flush | discard, 1, "", "", 1},
                   {0, 1, "b"}});
    ASSERT_EQ(logged.log.entries.size(), 3U);
    EXPECT_TRUE(logged.log.entries[1].flush);
    EXPECT_EQ(logged.after({3, CutKind::clean}), "ab......");
}

TEST(WriteLog, RefusesAFileThatIsNone)
{
    ScratchFolder folder;
    const std::string file = folder.path + "/log";
    for (const std::string &bytes : {std::string(sector, 'x'), std::string("short")}) {
        write_file(file, bytes);
        EXPECT_THROW(read_write_log(file), std::runtime_error);
    }
}

TEST(WriteLog, RefusesALogThatEndsTooSoon)
{
    ScratchFolder folder;
    write_file(folder.path + "/log", padded(little_endian(0x6a736677736872, 8) + little_endian(1, 8) +
                                            little_endian(1, 8) + little_endian(sector, 4)));
    EXPECT_THROW(read_write_log(folder.path + "/log"), std::runtime_error);
}

// ---- What a cut may lose ----

TEST(EntriesAtRisk, AreTheWritesSinceTheLastFlush)
{
    const Logged logged({{0, 0, "a"}, {flush, 0, ""}, {0, 1, "b"}, {0, 2, "c"}});
    EXPECT_THAT(entries_at_risk(logged.log, 1), ElementsAre(0U));
    EXPECT_THAT(entries_at_risk(logged.log, 2), IsEmpty());
    EXPECT_THAT(entries_at_risk(logged.log, 4), ElementsAre(2U, 3U));
}

TEST(EntriesAtRisk, AreAlsoAWriteWhoseFlushCameBeforeIt)
{
    const Logged logged({{0, 0, "a"}, {flush, 1, "b"}});
    EXPECT_THAT(entries_at_risk(logged.log, 2), ElementsAre(1U));
}

TEST(EntriesAtRisk, AreNotWritesThroughTheCacheWhichMakeNoneBeforeThemSafe)
{
    const Logged logged({{0, 0, "a"}, {through, 1, "b"}, {flush | through, 2, "c"}});
    EXPECT_THAT(entries_at_risk(logged.log, 2), ElementsAre(0U));
    EXPECT_THAT(entries_at_risk(logged.log, 3), IsEmpty());
}

// ---- Disks after a cut ----

TEST(CutDisk, CleanHasAllUpToTheCut)
{
    Logged logged({{0, 0, "ab"}, {flush, 0, ""}, {0, 1, "c"}, {0, 7, "d"}});
    EXPECT_EQ(logged.after({1, CutKind::clean}), "ab......");
    EXPECT_EQ(logged.after({3, CutKind::clean}), "ac......");
}

TEST(CutDisk, TornHasTheFirstSectorsOfTheLastWriteButNotAll)
{
    Logged logged({{0, 0, "a"}, {0, 1, "bcd"}});
    EXPECT_THAT(logged.all_after({2, CutKind::torn}), ElementsAre("ab......", "abc....."));
}

TEST(CutDisk, LostHasAnyOfTheWritesAtRiskAndAllOthers)
{
    Logged logged({{0, 0, "a"}, {flush, 1, "b"}, {through, 2, "c"}, {0, 3, "de"}});
    EXPECT_THAT(logged.all_after({4, CutKind::lost}),
                ElementsAre("a.c.....", "a.cde...", "abc.....", "abcde..."));
}

TEST(Cuts, TearOnlyWritesOfSeveralSectors)
{
    const Logged logged(
        {{0, 0, "a"}, {0, 1, "bc"}, {flush, 0, ""}, {0, 3, "d"}, {0, 4, "ef"}, {flush, 0, ""}});
    for (unsigned seed = 1; seed <= 50; ++seed) {
        std::mt19937 chance(seed);
        for (const Cut &cut : choose_cuts(logged.log, 6, chance)) {
            if (cut.kind == CutKind::torn) {
                EXPECT_THAT(cut.entries, testing::AnyOf(2U, 5U));
            }
        }
    }
}

TEST(Cuts, AreSpreadOverTheLogAndOfAllKinds)
{
    const Logged logged({{0, 0, "ab"}, {0, 0, "ab"}, {0, 0, "ab"}, {0, 0, "ab"}, {0, 0, "ab"}, {0, 0, "ab"}});
    std::mt19937 chance(1);
    std::vector<size_t> places;
    std::set<CutKind> kinds;
    for (const Cut &cut : choose_cuts(logged.log, 3, chance)) {
        places.push_back((cut.entries - 1) / 2);
        kinds.insert(cut.kind);
    }
    EXPECT_THAT(places, ElementsAre(0U, 1U, 2U));
    EXPECT_EQ(kinds.size(), 3U);
}
