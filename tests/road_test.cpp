// The road of a file: pieces, blocks, data file, information file, and back in a later run.
#include <gtest/gtest.h>

#include "support.h"

TEST(Road, AFileSurvivesTheRunThatMadeIt) {
    Cache cache;
    FileRef file = cache.Create();
    const FMFileID id = file->GetFileInfo().fileID;
    std::vector<std::string> contents;
    for (uint32_t i = 0; i < 10; ++i) {
        contents.push_back(Pattern(i, 1000 + 777 * i));
        EXPECT_EQ(Write(*Cache::Block(*file, i + 1), contents[i], 512), 0);
    }
    file.Reset();
    cache.Stop();
    cache.Start();
    EXPECT_FALSE(cache.Open(id, 0));
    file = cache.Open(id);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->GetFileInfo().name, CRtString("a file"));
    CountingSink sink;
    for (uint32_t i = 0; i < 10; ++i) {
        const BlockRef block = Cache::Block(*file, i + 1, 0);
        ASSERT_TRUE(block);
        EXPECT_FALSE(block->IsInMemory());
        if (i % 2 == 0) {
            EXPECT_EQ(block->ReadData(&sink), 0);
            cache.Settle();
            EXPECT_EQ(sink.results, std::vector<int>(i / 2 + 1, 0));
        }
        EXPECT_EQ(Read(*block), contents[i]);
    }
    EXPECT_FALSE(Cache::Block(*file, 11, 0));
}
