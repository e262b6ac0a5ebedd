// Files and blocks.
#include "testing/world.h"

#include <algorithm>
#include <utility>

#include "FMDurability.h"
#include "FMInfoCodec.h"
#include "util/filemanager/filemanager.h"

namespace sim {

// --- Files -------------------------------------------------------------------------------------

// The complete blocks of an open file.
Saved World::Versions(const File& file) {
    Saved versions;
    for (const auto& [id, block] : file.table) {
        if (block.version != 0)
            versions[id] = block.version;
    }
    return versions;
}

void World::CreateStep(const Step& step, File& file) {
    FMFileInfo info;
    info.fileID = file.id;
    info.blockBeg = 1;
    info.num = BLOCKS;
    info.flag = step.how % 8 == 0   ? uint32_t{FM_FILE_TEMPORARY}
                : step.how % 8 == 1 ? uint32_t{FM_FILE_KEPT}
                                    : 0;
    if (file.ref && (file.isChanged || file.isHarmed))
        ForgetDisk(file); // never saved
    if (file.ref && (file.flag & FM_FILE_TEMPORARY))
        ForgetDisk(file);
    if (!file.isSettled)
        ForgetDisk(file); // its table may be written before or after
    Unlock(file);
    file.rescued.clear();
    file.stored.clear();
    file.retried.clear();
    file.isDisplaced = file.isDisplaced || file.ref;
    Leave(file);
    Require(m_cache.manager->CreateFile(file.ref.Receive(), info) == RT_OK, "a file is created");
    file.flag = info.flag;
    file.created = m_clock.seconds;
    file.generation = ++m_generation;
    file.isSettled = true;
}

void World::OpenStep(const Step&, File& file) {
    if (!file.ref)
        Load(file);
}

bool World::Load(File& file) {
    if (file.ref)
        return true;
    const int result = m_cache.manager->OpenFile(file.ref.Receive(), file.id, 1);
    Trace(" -> " + std::to_string(result));
    Settled(file); // the load waits for the table
    file.saving.reset();
    file.rescued.clear();
    if (file.lock >= 0 && result != RT_OK)
        return false;
    // A file system without locks: the call fails, and the file is used as it is.
    Require(file.lock < 0 || IsFaulty(), "a file of another server does not load");
    Unlock(file);
    if (result != RT_OK) {
        Require(IsFaulty() || file.promised.empty(), "a saved file loads");
        Require(IsFaulty() || !file.isKnown || !file.disk, "a saved file loads");
        return false;
    }
    Require(IsFaulty() || !file.isKnown || file.disk, "a removed file does not load");
    Restore(file);
    return true;
}

void World::Restore(File& file) {
    file.flag = file.ref->GetFileInfo().flag;
    file.created = static_cast<CFMFile&>(*file.ref).GetCreateTime();
    file.isChanged = false;
    file.isHarmed = faults::Hits() > 0 && m_action == faults::CALL; // perhaps after the load
    file.isRewritten = false;
    file.isParked = false;
    file.hasGap = false;
    Saved found;
    uint32_t generation = 0;
    for (uint32_t id = 1; id <= BLOCKS; ++id) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (!block)
            continue;
        Block model;
        const auto promised = file.promised.find(id);
        if (promised != file.promised.end() && block->IsComplete()) {
            model.version = promised->second;
            model.bytes = History(file, id).at(model.version - 1).bytes;
            Require(block->GetTotalLen() == model.bytes.size(), "a promised block has its length");
            generation = History(file, id).at(model.version - 1).generation;
        } else if (file.isForeign) {
            model.isLost = true;
            model.bytes.resize(block->IsComplete() ? block->GetTotalLen() : 0);
        } else if (block->IsComplete()) {
            Identify(file, id, *block, model, generation);
        }
        model.length = block->IsComplete() ? block->GetTotalLen() : 0;
        if (model.version != 0)
            found[id] = model.version;
        model.isLost = model.isLost || file.isHarmed;
        file.table[id] = model;
    }
    for (const auto& [id, version] : file.promised)
        Require(IsFaulty() || (found.contains(id) && found[id] == version),
                Name(file, id) + " was saved, but is absent");
    Require(IsFaulty() || file.isForeign || !file.isKnown || (file.disk && found == *file.disk),
            "a load finds what was saved, and nothing else");
    file.generation = file.diskGeneration = generation ? generation : ++m_generation;
}

// Finds the version of a loaded block that the model cannot predict. All blocks of a file have one generation.
void World::Identify(File& file, uint32_t id, IFMBlock& block, Block& model, uint32_t& generation) {
    std::string bytes = ::Read(block);
    if (bytes.starts_with("error")) {
        faults::Lift(); // the generation must be known
        bytes = ::Read(block);
    }
    if (bytes.starts_with("error")) {
        model.isLost = true;
        model.bytes.resize(block.GetTotalLen());
        Require(!file.isKnown || IsFaulty(), Name(file, id) + " cannot be read");
        return;
    }
    const std::vector<Version>& versions = History(file, id);
    const auto it = std::find_if(versions.rbegin(), versions.rend(), [&](const Version& version) {
        return version.bytes == bytes && (generation == 0 || version.generation == generation);
    });
    Require(it != versions.rend(),
            Name(file, id) + " has bytes that no complete write of this file had");
    if (it == versions.rend())
        return;
    generation = it->generation;
    model.version = static_cast<uint32_t>(versions.rend() - it);
    model.bytes = bytes;
}

void World::Attach(const Step&, File& file) {
    const int result = m_cache.manager->AttachFile(file.id);
    Require(result == (file.ref ? RT_OK : RT_ERROR_NOT_FOUND), "an open file can be attached");
    file.attached += file.ref ? 1 : 0;
}

void World::Close(File& file) {
    const bool isOpen = static_cast<bool>(file.ref);
    if (isOpen && file.attached <= 1)
        Closed(file);
    else if (isOpen)
        --file.attached;
    const int result = m_cache.manager->DetachFile(file.id);
    Require(result == (isOpen ? RT_OK : RT_ERROR_NOT_FOUND), "an open file can be detached");
}

// The model of a file that is about to be closed.
void World::Closed(File& file) {
    file.isSettled = false;
    NoteResident(file);
    ForEachHeld(file, [](Held& held) { held.isClosed = held.isClosed || held.isOpen; });
    const bool isTemporary = (file.flag & FM_FILE_TEMPORARY) != 0;
    if (isTemporary || file.isChanged || file.isHarmed) {
        const bool isHarmed = file.isHarmed;
        const Saved rescued = std::move(file.rescued);
        Saved stored = isHarmed || isTemporary ? Saved() : StoredBlocks(file);
        ForgetDisk(file);
        file.stored = std::move(stored);
        file.rescued = isTemporary ? Saved() : rescued;
        if (!isHarmed)
            file.saving.emplace(isTemporary ? std::nullopt : std::optional(Versions(file)));
    }
    Leave(file);
}

Saved World::StoredBlocks(const File& file) const {
    Saved stored;
    if (m_isThreaded || IsFaulty() || file.isDisplaced)
        return stored;
    for (const auto& [id, model] : file.table) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        if (model.version != 0 && block &&
            FMGetBlockStatus(*block).condition == FMBlockCondition::Stored)
            stored[id] = model.version;
    }
    return stored;
}

// Blocks in memory are stored again if another program has removed or truncated the files.
void World::NoteResident(File& file) {
    file.rescued.clear();
    if (!file.isHarmed || file.isRewritten || file.isForeign || m_isThreaded || IsFaulty() ||
        file.isDisplaced)
        return;
    for (const auto& [id, model] : file.table) {
        const BlockRef block = Cache::Block(*file.ref, id, 0);
        // A pending store may reach the removed file: the path is checked once a second.
        if (model.version != 0 && block && block->IsInMemory() &&
            FMGetBlockStatus(*block).condition != FMBlockCondition::Pending)
            file.rescued[id] = model.version;
    }
}

// Of all objects that the file had.
void World::ForEachHeld(const File& file, const std::function<void(Held&)>& change) {
    const auto visit = [&](Held& held) {
        if (held.block->GetFileID() == file.id)
            change(held);
    };
    for (const auto& held : m_held)
        visit(*held);
    for (const Wait& wait : m_waits)
        visit(*wait.GetHeld());
}

void World::Leave(File& file) {
    ForEachHeld(file, [](Held& held) { held.isOpen = false; });
    file.table.clear();
    file.ref.Reset();
    file.attached = 0;
    file.isChanged = false;
    file.isHarmed = false;
    file.isRewritten = false;
    file.isParked = false;
    file.hasGap = false;
}

// --- Blocks ------------------------------------------------------------------------------------

// Opens or creates the file if it is not open.
BlockRef World::Find(const Step& step, File& file) {
    if (!file.ref && !Load(file))
        CreateStep(step, file);
    const BlockRef block = Cache::Block(*file.ref, PickID(step), 1);
    if (Require(static_cast<bool>(block), "a block is created"))
        file.table.try_emplace(PickID(step));
    return block;
}

void World::Write(const Step& step, File& file) {
    const BlockRef block = Find(step, file);
    if (!block)
        return;
    Block& model = file.table[PickID(step)];
    const uint32_t position = static_cast<uint32_t>(model.bytes.size());
    const bool isComplete = model.length != 0 && position == model.length;
    const uint32_t pos = isComplete || step.how % 16 == 1 ? 0 : position + (step.how % 16 == 2);
    const bool isRewrite = pos != position;
    const bool isSame = model.length != 0 && step.how % 4 != 3; // the same length again
    const uint32_t length = isSame ? model.length : LengthOf(step);
    const uint32_t left = length > pos ? length - pos : 0;
    const uint32_t size = step.how < 160 ? left : std::min<uint32_t>(left, left / 2 + 1);
    const uint32_t version = static_cast<uint32_t>(History(file, PickID(step)).size()) + 1;
    const std::string whole = Pattern(file.id.Data1 * 4099 + PickID(step) * 257 + version, length);
    const uint32_t wholeLength = isRewrite || model.length == 0 ? length : model.length;
    const bool isRefused = (isRewrite && pos != 0) || uint64_t{pos} + size > wholeLength;
    const CRtMessageChain piece = CRtMessageBlock::Wrap(whole.data() + std::min(pos, length), size);
    if (!isRefused && isRewrite)
        BeginWrite(file, PickID(step));
    const int result = block->WriteData(length, pos, piece.get());
    Trace(" pos " + std::to_string(pos) + " size " + std::to_string(size) + " of " +
          std::to_string(length) + " -> " + std::to_string(result));
    Require(result == (isRefused ? RT_ERROR_INVALID_ARG : RT_OK), "a piece is accepted");
    if (isRefused || size == 0)
        return;
    if (!isRewrite)
        BeginWrite(file, PickID(step));
    model.bytes = (isRewrite ? std::string() : model.bytes) + whole.substr(pos, size);
    model.length = wholeLength;
    model.version = 0;
    model.isLost = file.isHarmed; // the path of the data file is checked once a second
    if (model.bytes.size() == model.length) {
        History(file, PickID(step)).push_back({file.generation, model.bytes});
        model.version = version;
    }
    Require(block->GetPosition() == model.bytes.size(), "a piece moves the position");
    Require(block->IsComplete() == (model.version != 0), "the last piece completes the block");
}

void World::BeginWrite(File& file, uint32_t id) {
    file.isChanged = true;
    Block& block = file.table[id];
    block.isUnsaved = true;
    // Closing compares the length of the data file only with the ends of complete blocks.
    file.hasGap = file.hasGap || block.version != 0;
    file.isRewritten = file.isRewritten || (file.isHarmed && block.version != 0);
    file.promised.erase(id);
    if (file.generation != file.diskGeneration) // the older file is removed before the first store
        ForgetDisk(file);
}

void World::Remove(const Step& step, File& file) {
    if (!file.ref)
        return;
    BlockRef removed;
    Require(file.ref->RemoveBlock(PickID(step), removed.Receive()) == RT_OK, "a block is removed");
    Require(static_cast<bool>(removed) == file.table.contains(PickID(step)), "a block is removed");
    if (!removed)
        return;
    BeginWrite(file, PickID(step));
    file.table.erase(PickID(step));
    ForEachHeld(
        file, [&](Held& held) { held.isOpen = held.isOpen && held.block.Get() != removed.Get(); });
}

void World::Read(const Step& step, File& file) {
    if (step.how % 8 == 7)
        return ReadHeld(step);
    const BlockRef block = Find(step, file);
    if (!block)
        return;
    const Block& model = file.table[PickID(step)];
    const uint32_t from = step.size % (model.length + 2);
    const uint32_t length = step.how * 37U % (model.length + 2);
    CRtMessageChain view;
    const int result = block->ReadData(from, length, RtReceive(view));
    Trace(" from " + std::to_string(from) + " length " + std::to_string(length) + " -> " +
          std::to_string(result));
    if (model.isLost || model.version == 0 || !IsFaulty())
        CheckRead(file, PickID(step), model, from, length, result);
    if (result == RT_OK && model.version != 0)
        Require(Bytes(view) == model.bytes.substr(from, length),
                Name(file, PickID(step)) + " has its bytes");
}

void World::CheckRead(const File& file, uint32_t id, const Block& model, uint32_t from,
                      uint32_t length, int result) {
    if (from > model.bytes.size() || from + length > model.length)
        Require(result == RT_ERROR_INVALID_ARG || model.isLost, "the range is refused");
    else if (model.version == 0)
        Require(result == RT_ERROR_NOT_READY || model.isLost, "an incomplete block is refused");
    else
        Require(result == RT_OK || model.isLost || IsFaulty(), Name(file, id) + " can be read");
}

void World::CheckBlock(File& file, uint32_t id) {
    const BlockRef block = Cache::Block(*file.ref, id, 0);
    if (!Require(static_cast<bool>(block), Name(file, id) + " is in the table"))
        return;
    const Block& model = file.table[id];
    if (model.version == 0 || model.isLost)
        return;
    Require(::Read(*block) == model.bytes, Name(file, id) + " has its bytes");
}

// --- Blocks that are referenced, and asynchronous reads ----------------------------------------

std::shared_ptr<World::Held> World::Keep(const Step& step, File& file) {
    const BlockRef block = Find(step, file);
    if (!block)
        return nullptr;
    for (const auto& held : m_held) {
        if (held->block.Get() == block.Get())
            return held;
    }
    m_held.push_back(std::make_shared<Held>(Held{block, true}));
    return m_held.back();
}

void World::Hold(const Step& step, File& file) {
    if (step.how % 2)
        Keep(step, file);
    else if (!m_held.empty())
        m_held.erase(m_held.begin() + step.size % static_cast<std::ptrdiff_t>(m_held.size()));
}

// Reads a block that is referenced, possibly of a closed file.
void World::ReadHeld(const Step& step) {
    if (m_held.empty())
        return;
    Held& held = *m_held[step.size % m_held.size()];
    CheckHeld(held, ::Read(*held.block));
    const CRtMessageChain piece = CRtMessageBlock::Wrap("piece", 5);
    Require(!held.isClosed || held.block->GetPosition() == 0 ||
                held.block->WriteData(5, 0, piece.get()) == RT_ERROR_NOT_READY,
            "a block of a closed file is not written");
}

void World::CheckHeld(const Held& held, const std::string& bytes) {
    if (bytes.starts_with("error") || m_files[held.block->GetFileID().Data1 - 1].isForeign)
        return;
    const auto& versions = m_history[{held.block->GetFileID().Data1, held.block->GetBlockID()}];
    if (const uint32_t current = VersionOf(held))
        Require(bytes == versions.at(current - 1).bytes, NameOf(held) + " has its bytes");
    else
        Require(std::ranges::any_of(versions,
                                    [&](const Version& version) { return version.bytes == bytes; }),
                NameOf(held) + " has bytes that no complete write had");
}

void World::Ask(const Step& step, File& file) {
    const std::shared_ptr<Held> held =
        step.how % 8 == 7 && !m_held.empty() ? m_held[step.size % m_held.size()] : Keep(step, file);
    if (!held)
        return;
    Wait& wait = m_waits.emplace_back(*this, held);
    const int result = held->block->ReadData(&wait);
    Trace(" -> " + std::to_string(result));
    if (result != RT_OK)
        wait.isOver = true; // after a failure the sink is not called
}

// The current version of the block in its open file; 0 if there is none that must be readable.
uint32_t World::VersionOf(const Held& held) const {
    const File& file = m_files[held.block->GetFileID().Data1 - 1];
    const auto it = file.table.find(held.block->GetBlockID());
    const bool isReadable = held.isOpen && file.ref && it != file.table.end() && !it->second.isLost;
    return isReadable ? it->second.version : 0;
}

void World::CheckCompletion(const Held& held, int result, uint32_t faults, uint32_t version) {
    Trace(" [sink " + std::to_string(result) + "]");
    // A rewrite of a complete block makes the load stale: the next one serves the sink.
    const bool isCurrent = version != 0 && VersionOf(held) != 0;
    const bool mayFail = !isCurrent || m_faults != faults || IsFaulty();
    Require(result == RT_OK || mayFail, NameOf(held) + " can be loaded");
    if (result != RT_OK)
        return;
    const std::string bytes = ::Read(*held.block);
    Require(mayFail || !bytes.starts_with("error"),
            NameOf(held) + " can be read once it is loaded");
    CheckHeld(held, bytes);
}

void World::Cancel(const Step& step, File&) {
    std::vector<Wait*> waiting;
    for (Wait& wait : m_waits) {
        if (!wait.isOver)
            waiting.push_back(&wait);
    }
    if (!waiting.empty())
        waiting[step.size % waiting.size()]->Cancel();
}

} // namespace sim
