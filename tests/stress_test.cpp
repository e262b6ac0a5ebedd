// Both threads under load, from a fixed seed, against a plain model of what each block must contain.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "support.h"

namespace {

struct ModelBlock {
    std::string bytes;   // what has been written, from the start
    uint32_t length = 0; // of the whole block
    bool Complete() const { return length != 0 && bytes.size() == length; }
};
using ModelRef = std::shared_ptr<ModelBlock>;

struct OpenBlock {
    BlockRef block;
    ModelRef model;
};

struct OpenFile {
    FMFileID id;
    FileRef file;
    std::map<uint32_t, OpenBlock> blocks;
};

class Stress {
public:
    Stress(Cache& cache, TestClock& clock, uint32_t seed)
        : m_cache(cache), m_clock(clock), m_random(seed) {
        for (size_t i = 0; i < 5; ++i) {
            FileRef file = m_cache.Create();
            m_files.push_back({file->GetFileInfo().fileID, file, {}});
        }
    }

    void Run(int operations) {
        for (int i = 0; i < operations && !testing::Test::HasFailure(); ++i)
            Step();
        for (auto& waiting : m_sinks)
            waiting.block->CancelReadData(&waiting.sink);
    }

    void CheckAll() {
        for (OpenFile& file : m_files) {
            for (auto& [id, open] : file.blocks)
                CheckWhole(open);
        }
    }

    void CloseAndReopen(OpenFile& file) {
        for (auto it = file.blocks.begin(); it != file.blocks.end();)
            it = it->second.model->Complete() ? std::next(it) : file.blocks.erase(it);
        const bool anything = !file.blocks.empty() || m_cache.Open(file.id, 0);
        file.file.Reset();
        ASSERT_EQ(m_cache.manager->DetachFile(file.id), 0);
        file.file = m_cache.Open(file.id);
        if (!file.file) // nothing had ever been written
            file.file = m_cache.Create(WithID(file.id));
        ASSERT_TRUE(anything && file.file);
        for (auto& [id, open] : file.blocks) {
            open.block = Cache::Block(*file.file, id, 0);
            ASSERT_TRUE(open.block) << id;
            open.model = std::make_shared<ModelBlock>(*open.model); // the old block keeps its own
        }
    }

    std::vector<OpenFile>& Files() { return m_files; }
    size_t Calls() const { return m_calls; }

private:
    struct Waiting {
        CountingSink sink;
        BlockRef block;
    };

    uint32_t Pick(uint32_t below) { return static_cast<uint32_t>(m_random()) % below; }

    static FMFileInfo WithID(const FMFileID& id) {
        FMFileInfo info = Description();
        info.fileID = id;
        return info;
    }

    void Step() {
        OpenFile& file = m_files[Pick(static_cast<uint32_t>(m_files.size()))];
        const uint32_t dice = Pick(1000);
        if (dice < 2)
            return CloseAndReopen(file);
        if (dice < 5)
            return Recreate(file);
        if (dice < 60)
            return static_cast<void>(m_cache.thread.RunDue());
        OpenBlock& open = PickBlock(file);
        if (dice < 450)
            WriteSome(open);
        else if (dice < 650)
            CheckRange(open);
        else if (dice < 850)
            ReadLater(open);
        else if (dice < 900)
            CancelSome();
        else if (dice < 950)
            Release(open);
        else if (dice < 970)
            Remove(file);
        else
            CheckWhole(open);
    }

    OpenBlock& PickBlock(OpenFile& file) {
        const uint32_t id = 1 + Pick(20);
        OpenBlock& open = file.blocks[id];
        if (!open.block) {
            open.block = Cache::Block(*file.file, id);
            open.model = std::make_shared<ModelBlock>();
        }
        return open;
    }

    // A piece of the block, or all that is left of it; a complete block begins anew.
    void WriteSome(OpenBlock& open) {
        ModelBlock& model = *open.model;
        const bool restart = model.Complete() || Pick(20) == 0;
        if (restart || model.length == 0) {
            if (model.length == 0 || Pick(3) == 0)
                model.length = 1 + Pick(5000);
            if (!model.bytes.empty())
                model.bytes.clear();
        }
        uint32_t left = model.length - static_cast<uint32_t>(model.bytes.size());
        do {
            const uint32_t part = Pick(3) == 0 ? left : 1 + Pick(left);
            const std::string piece = Pattern(static_cast<uint32_t>(m_random()), part);
            const auto at = static_cast<uint32_t>(model.bytes.size());
            const CRtMessageChain data = CRtMessageBlock::Wrap(piece.data(), part);
            ASSERT_EQ(open.block->WriteData(model.length, at, data.get()), 0);
            model.bytes += piece;
            left -= part;
        } while (left > 0 && Pick(4) != 0);
    }

    void CheckRange(OpenBlock& open) {
        const ModelBlock& model = *open.model;
        const uint32_t from = Pick(model.length + 1);
        const uint32_t length = Pick(model.length - from + 1);
        CRtMessageChain view;
        const int result = open.block->ReadData(from, length, RtReceive(view));
        if (!model.Complete()) {
            ASSERT_NE(result, 0);
            return;
        }
        ASSERT_EQ(result, 0);
        ASSERT_TRUE(view->FlattenChained().view() == model.bytes.substr(from, length));
    }

    static void CheckWhole(const OpenBlock& open) {
        if (open.model->Complete()) {
            ASSERT_TRUE(Read(*open.block) == open.model->bytes);
        }
    }

    void ReadLater(OpenBlock& open) {
        while (m_sinks.size() > 30 && !m_sinks.front().sink.results.empty())
            m_sinks.pop_front();
        Waiting& waiting = m_sinks.emplace_back();
        waiting.block = open.block;
        waiting.sink.then = [this, model = open.model](IFMBlock* block, int result) {
            ++m_calls;
            if (result != 0) {
                EXPECT_EQ(result, RT_ERROR_NOT_READY);
            } else if (model->Complete()) {
                EXPECT_TRUE(Read(*block) == model->bytes);
            }
        };
        ASSERT_EQ(open.block->ReadData(&waiting.sink), 0);
    }

    void CancelSome() {
        if (m_sinks.empty())
            return;
        auto it = std::next(m_sinks.begin(), Pick(static_cast<uint32_t>(m_sinks.size())));
        EXPECT_EQ(it->block->CancelReadData(&it->sink), 0);
        m_sinks.erase(it);
    }

    void Release(OpenBlock& open) {
        m_clock.Advance(240'001);
        open.block->FreeMemory();
    }

    void Remove(OpenFile& file) {
        if (file.blocks.empty())
            return;
        const auto it =
            std::next(file.blocks.begin(), Pick(static_cast<uint32_t>(file.blocks.size())));
        IFMBlock* removed = nullptr;
        ASSERT_EQ(file.file->RemoveBlock(it->first, removed), 0);
        BlockRef::Adopt(removed);
        file.blocks.erase(it);
    }

    // A new file under the identifier of one that is open.
    void Recreate(OpenFile& file) {
        file.blocks.clear();
        file.file = m_cache.Create(WithID(file.id));
    }

    Cache& m_cache;
    TestClock& m_clock;
    std::mt19937 m_random;
    std::vector<OpenFile> m_files;
    std::list<Waiting> m_sinks;
    size_t m_calls = 0;
};

} // namespace

TEST(Stress, EveryBlockHoldsWhatWasWrittenLast) {
    LogCapture quiet(RT_LOG_SILENT);
    TestClock clock;
    Cache cache(0);
    Stress stress(cache, clock, 20240601);
    stress.Run(120'000);
    EXPECT_GT(stress.Calls(), 10'000U);
    stress.CheckAll();
    for (OpenFile& file : stress.Files())
        stress.CloseAndReopen(file);
    stress.CheckAll();
}
