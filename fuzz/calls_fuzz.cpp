// Runs programs of interface calls, on clients and servers, and compares with a small model of every block and
// every stored table. The calls that a sink makes from inside its own call come from the same program.
#include <array>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <tuple>

#include "support.h"

namespace {

using fuzz::Input;
using fuzz::Require;

constexpr uint32_t FILES = 3;
constexpr uint32_t NODES = 4;
constexpr int MOST_CALLS = 200;
constexpr uint32_t MOST_BYTES = 64 * 1024;
constexpr uint32_t FIRST_BLOCK = 5;

class Node final : public CRtCounted<ISDUser> {
public:
    const CTavoSID& GetNodeSID() override { return m_sid; }
    int IsP2P() override { return 1; }
    int IsPublic() override { return 0; }
    uint32_t GetAddressTag() override { return 0; }
    uint32_t GetIP() override { return 7; }
    const SDAddress& GetAddress() override { return m_address; }

private:
    const CTavoSID m_sid{1};
    const SDAddress m_address{};
};

// The expected state of a block.
struct Model {
    // Returns the expected result of a write, and applies an accepted piece.
    int Write(uint32_t blockLen, uint32_t pos, const std::string& piece, bool& changed) {
        const bool rewrite = pos != bytes.size();
        const uint32_t whole = rewrite || length == 0 ? blockLen : length;
        if ((rewrite && pos != 0) || blockLen == 0 || pos + piece.size() > whole)
            return RT_ERROR_INVALID_ARG;
        if (!rewrite && IsComplete())
            return 0; // an empty piece at the end
        bytes = rewrite ? piece : bytes + piece;
        length = whole;
        changed = true;
        ++writes;
        return 0;
    }
    bool IsComplete() const { return length != 0 && bytes.size() == length; }

    uint32_t length = 0;
    std::string bytes;   // the bytes written so far
    uint32_t writes = 0; // accepted writes
    bool isLeft = false; // its file was closed or displaced, or it was removed: reads may fail
    std::vector<ISDUser*> requests;
    std::vector<ISDUser*> owners;
};

struct Held {
    BlockRef block;
    std::shared_ptr<Model> model = std::make_shared<Model>();
};

// The blocks that a table restores; no bytes for a block that was not complete.
using Stored = std::map<uint32_t, std::optional<std::string>>;

struct File {
    FMFileInfo info;
    FileRef file;
    bool isUsed = false;
    int attached = 0;
    bool changed = false;
    std::map<uint32_t, Held> table;
    std::optional<Stored> disk;
    bool isDiskUnknown = false; // a changed file was displaced before it was saved
};

void CheckWhole(const Held& held) {
    std::string bytes;
    const bool there = fuzz::ReadWhole(*held.block, bytes);
    Require(held.block->IsComplete() == held.model->IsComplete());
    Require(there ? bytes == held.model->bytes : !held.model->IsComplete() || held.model->isLeft);
}

// Removes the first occurrence.
void Erase(std::vector<ISDUser*>& nodes, ISDUser* node) {
    if (const auto it = std::find(nodes.begin(), nodes.end(), node); it != nodes.end())
        nodes.erase(it);
}

class Program {
public:
    explicit Program(Input input) : m_input(input) {
        for (uint32_t i = 0; i < FILES; ++i) {
            m_files[i].info.fileID = {i + 1, 0xF022, 0, {}};
            m_files[i].info.blockBeg = FIRST_BLOCK;
            m_files[i].info.num = 8; // the table grows on request
        }
        for (auto& node : m_nodes)
            node = new Node;
    }

    void Run() {
        while (!m_input.IsOver() && m_calls < MOST_CALLS)
            Call();
        m_calls = MOST_CALLS; // sinks make no calls from here on
        fuzz::Cache::WaitUntilIdle();
        Require(std::ranges::all_of(m_waits, &Wait::IsOver));
        for (File& file : m_files) {
            if (!file.isUsed)
                continue;
            for (const auto& [id, held] : file.table)
                CheckWhole(held);
            while (file.file)
                Detach(file);
            if (Load(file))
                Detach(file);
        }
        End();
    }

private:
    class Wait final : public IFMBlockSink {
    public:
        Wait(Program& program, const Held& held) : m_program(program), m_held(held) {}
        void OnBlockDataReady(IFMBlock* block, int result) override {
            Require(block == m_held.block.Get() && !cancelled && calls++ == 0);
            const Model& model = *m_held.model;
            const bool wasThere = model.IsComplete() && model.writes == m_writes && !model.isLeft;
            Require(result == 0 || !wasThere);
            CheckWhole(m_held);
            m_program.CallFromSink();
        }
        void Cancel() {
            cancelled = calls == 0;
            Require(m_held.block->CancelReadData(this) == 0);
        }
        bool IsOver() const { return cancelled || calls == 1; }
        int calls = 0;
        bool cancelled = false;

    private:
        Program& m_program;
        const Held m_held;
        const uint32_t m_writes = m_held.model->writes; // at the time of the request
    };

    // Removes everything of this run. The manager releases a displaced file, and may save it, only when it
    // stops.
    void End() {
        for (const Wait& wait : m_waits)
            Require(wait.calls == (wait.cancelled ? 0 : 1));
        m_waits.clear();
        if (m_isServer || m_displaced)
            Restart(0);
        fuzz::Cache::WaitUntilIdle();
        Require(AreNodesFree());
        for (const File& file : m_files) {
            if (file.isUsed)
                fuzz::Cache::RemoveFiles(m_cache.Stem(file.info.fileID));
        }
        m_cache.clock.ms = 1'000'000;
    }

    bool AreNodesFree() const {
        return std::ranges::all_of(m_nodes, [](const CRtComAutoPtr<ISDUser>& node) {
            node->AddReference();
            return node->ReleaseReference() == 1;
        });
    }

    void Call() {
        using Step = void (Program::*)(File&);
        using P = Program;
        static constexpr Step steps[] = {
            &P::Stop,    &P::MoveClock, &P::MoveClock, &P::Pump,      &P::CancelOne,
            &P::Create,  &P::Open,      &P::Attach,    &P::Detach,    &P::Remove,
            &P::Write,   &P::Write,     &P::Write,     &P::Write,     &P::Write,
            &P::Write,   &P::ReadRange, &P::ReadRange, &P::ReadLater, &P::ReadLater,
            &P::Release, &P::UseNodes,  &P::UseNodes,  &P::CancelNode};
        ++m_calls;
        const Step step = steps[m_input.Below(std::size(steps))];
        File& file = m_files[m_input.Below(FILES)];
        file.isUsed = true;
        (this->*step)(file);
    }

    void CallFromSink() {
        if (m_depth > 2 || m_input.IsOver() || m_calls >= MOST_CALLS)
            return;
        ++m_depth;
        Call();
        --m_depth;
    }

    // --- The manager and its files --------------------------------------------------------------

    // Rare, because a stop is slow.
    void Stop(File&) {
        if (const uint32_t kind = m_input.Below(16); kind < 2)
            Restart(static_cast<int>(kind));
    }

    void Restart(int isServer) {
        m_cache.manager->UnInitialize();
        for (File& file : m_files)
            Closed(file);
        m_isServer = isServer;
        m_displaced = false;
        m_cache.Start(isServer);
    }

    // The tick collects memory; on a server it also runs housekeeping, which finds no expired files.
    void MoveClock(File&) {
        constexpr uint64_t steps[] = {1'000, 60'001, 130'000, 250'000};
        m_cache.clock.ms += steps[m_input.Below(4)];
        m_cache.thread.RunDue();
    }

    void Pump(File&) { m_cache.thread.RunDue(); }

    void Create(File& file) {
        m_displaced |= static_cast<bool>(file.file);
        file.isDiskUnknown |= file.changed;
        Leave(file);
        file.info.flag = m_input.Below(8) == 0 ? uint32_t{FM_FILE_TEMPORARY} : 0;
        Require(m_cache.manager->CreateFile(file.file.Receive(), file.info) == 0);
    }

    void Open(File& file) {
        FileRef opened;
        if (!file.file && m_input.Below(2) == 0)
            return static_cast<void>(Load(file));
        const int result = m_cache.manager->OpenFile(opened.Receive(), file.info.fileID, 0);
        Require(result == (file.file ? 0 : RT_ERROR_NOT_FOUND) && opened.Get() == file.file.Get());
    }

    bool Load(File& file) {
        const int result = m_cache.manager->OpenFile(file.file.Receive(), file.info.fileID, 1);
        Require(result == (file.file ? 0 : RT_ERROR_NOT_FOUND));
        Require(file.isDiskUnknown || file.disk.has_value() == static_cast<bool>(file.file));
        if (file.file)
            Restore(file);
        else
            file.disk.reset();
        file.isDiskUnknown = false;
        return static_cast<bool>(file.file);
    }

    void Restore(File& file) {
        const FMFileInfo& info = file.file->GetFileInfo();
        Require(info.fileID == file.info.fileID && info.blockBeg == FIRST_BLOCK && info.flag == 0);
        file.info.flag = 0;
        for (uint32_t slot = 0; slot < file.file->GetBlocks().size(); ++slot) {
            Held held;
            if (file.file->GetBlock(held.block.Receive(), FIRST_BLOCK + slot, 0) != 0)
                continue;
            Require(!held.block->IsComplete() || fuzz::ReadWhole(*held.block, held.model->bytes));
            held.model->length = static_cast<uint32_t>(held.model->bytes.size());
            file.table[FIRST_BLOCK + slot] = held;
        }
        const Stored restored = Describe(file);
        Require(file.isDiskUnknown || restored == *file.disk);
        file.disk = restored;
    }

    static Stored Describe(const File& file) {
        Stored stored;
        for (const auto& [id, held] : file.table)
            stored[id] = held.model->IsComplete() ? std::optional(held.model->bytes) : std::nullopt;
        return stored;
    }

    void Closed(File& file) {
        const bool temporary = file.file && (file.info.flag & FM_FILE_TEMPORARY);
        if (file.changed)
            file.disk = Describe(file);
        if (temporary)
            file.disk.reset();
        if (file.changed || temporary)
            file.isDiskUnknown = false;
        Leave(file);
    }

    void Leave(File& file) {
        for (auto& [id, held] : file.table)
            held.model->isLeft = true;
        file.table.clear();
        file.file.Reset();
        file.attached = 0;
        file.changed = false;
    }

    void Attach(File& file) {
        const int result = m_cache.manager->AttachFile(file.info.fileID);
        Require(result == (file.file ? 0 : RT_ERROR_NOT_FOUND));
        file.attached += file.file ? 1 : 0;
    }

    void Detach(File& file) {
        const int result = m_cache.manager->DetachFile(file.info.fileID);
        Require(result == (file.file ? 0 : RT_ERROR_NOT_FOUND));
        if (file.file && --file.attached <= 0)
            Closed(file);
    }

    // --- Blocks ---------------------------------------------------------------------------------

    uint32_t PickID() {
        const uint32_t value = m_input.Byte();
        if (value < 250)
            return FIRST_BLOCK + value % 6;
        return value < 253 ? FIRST_BLOCK - 1 : FIRST_BLOCK + 64 + value;
    }

    // A block of the file, which is opened if necessary. Empty if the block is absent and not to be created.
    Held Block(File& file) {
        if (!file.file && !Load(file))
            Create(file);
        const uint32_t id = PickID();
        const int create = m_input.Below(8) != 0;
        Held held;
        const int result =
            m_cache.manager->GetBlock(held.block.Receive(), file.info.fileID, id, create);
        const auto it = file.table.find(id);
        if (it != file.table.end())
            Require(result == 0 && held.block.Get() == it->second.block.Get());
        else if (!create || id < FIRST_BLOCK)
            Require(result == (create ? RT_ERROR_INVALID_ARG : RT_ERROR_NOT_FOUND));
        else
            Require(result == 0 && held.block->GetBlockID() == id);
        return held.block ? file.table.try_emplace(id, held).first->second : held;
    }

    void Remove(File& file) {
        if (!file.file)
            return;
        const uint32_t id = PickID();
        BlockRef removed;
        const bool inTable = id >= FIRST_BLOCK && id - FIRST_BLOCK < file.file->GetBlocks().size();
        Require(file.file->RemoveBlock(id, removed.Receive()) ==
                (inTable ? 0 : RT_ERROR_INVALID_ARG));
        const auto it = file.table.find(id);
        Require(removed.Get() == (it == file.table.end() ? nullptr : it->second.block.Get()));
        if (!removed)
            return;
        it->second.model->isLeft = true;
        file.table.erase(it);
        file.changed = true;
    }

    // Mostly the next piece; sometimes one from the start, from a wrong position or of a wrong length.
    void Write(File& file) {
        const Held held = Block(file);
        if (!held.block)
            return;
        Model& model = *held.model;
        const auto position = static_cast<uint32_t>(model.bytes.size());
        const uint32_t how = m_input.Byte();
        const uint32_t pos = how % 8 == 1 || model.IsComplete() ? 0 : position + (how % 8 == 2);
        const bool otherLength = model.length == 0 || how / 8 % 4 == 1;
        const uint32_t length = otherLength ? m_input.Below(1500) : model.length;
        const uint32_t left = length > pos ? length - pos : 0;
        const uint32_t size = how < 128 ? left : m_input.Below(left + 2);
        m_bytes += length + size;
        if (m_bytes > MOST_BYTES)
            return;
        const std::string bytes = Pattern(m_bytes, size);
        CRtMessageChain piece = CRtMessageBlock::Wrap(bytes.data(), size / 3);
        piece->Append(CRtMessageBlock::Wrap(bytes.data() + size / 3, size - size / 3));
        const int expected = model.Write(length, pos, bytes, file.changed);
        Require(held.block->WriteData(length, pos, piece.get()) == expected);
        Require(held.block->GetPosition() == model.bytes.size());
        Require(held.block->GetTotalLen() == model.length);
    }

    void ReadRange(File& file) {
        const Held held = Block(file);
        if (!held.block)
            return;
        const Model& model = *held.model;
        const uint32_t from = m_input.Below(model.length + 2);
        const uint32_t length = m_input.Below(model.length + 2);
        CRtMessageChain view;
        const int result = held.block->ReadData(from, length, RtReceive(view));
        if (from > model.bytes.size() || from + length > model.length)
            return Require(result == RT_ERROR_INVALID_ARG);
        Require(result == (model.IsComplete() ? 0 : RT_ERROR_NOT_READY));
        Require(result != 0 || view->FlattenChained().view() == model.bytes.substr(from, length));
    }

    void ReadLater(File& file) {
        const Held held = Block(file);
        if (held.block)
            Require(held.block->ReadData(&m_waits.emplace_back(*this, held)) == 0);
    }

    void CancelOne(File&) {
        if (!m_waits.empty())
            std::next(m_waits.begin(), m_input.Byte() % m_waits.size())->Cancel();
    }

    void Release(File& file) {
        const Held held = Block(file);
        Require(!held.block || held.block->FreeMemory() == held.block->IsInMemory());
    }

    // --- Nodes ----------------------------------------------------------------------------------

    void UseNodes(File& file) {
        const Held held = Block(file);
        if (!held.block)
            return;
        ISDUser* node = m_nodes[m_input.Below(NODES)].Get();
        const uint32_t own = m_input.Below(3);
        if (own == 2) {
            held.model->requests.push_back(node);
            held.block->AddRetrieve(node, m_input.Byte());
        } else if (own == 1) {
            held.model->owners.push_back(node);
            held.block->SetOwner(node, 1);
        } else {
            Erase(held.model->owners, node);
            held.block->SetOwner(node, 0);
        }
        CheckNodes(held);
    }

    static void CheckNodes(const Held& held) {
        const auto same = [](const FMRetrieveItem& one, ISDUser* other) {
            return one.m_userNode.Get() == other;
        };
        const auto& [requests, owners] = std::tie(held.model->requests, held.model->owners);
        Require(std::ranges::equal(held.block->GetRetrieves(), requests, same));
        ISDUser* owner = held.block->GetOwner();
        Require(held.block->HasOwner() == !owners.empty() && !owner == owners.empty());
        Require(!owner || std::ranges::count(owners, owner) > 0);
    }

    void CancelNode(File& file) {
        if (!file.file)
            return;
        ISDUser* node = m_nodes[m_input.Below(NODES)].Get();
        const bool asOwner = m_input.Below(2) != 0;
        file.file->CancelRetrieve(node, asOwner);
        for (auto& [id, held] : file.table) {
            Erase(held.model->requests, node);
            if (asOwner)
                Erase(held.model->owners, node);
            CheckNodes(held);
        }
    }

    fuzz::Cache& m_cache = fuzz::Cache::Instance();
    Input m_input;
    std::array<CRtComAutoPtr<ISDUser>, NODES> m_nodes; // outlive the blocks
    std::array<File, FILES> m_files;
    std::list<Wait> m_waits;
    bool m_isServer = false;
    bool m_displaced = false;
    int m_calls = 0;
    int m_depth = 0;
    uint32_t m_bytes = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Program(Input(data, size)).Run();
    return 0;
}
