// The state of a block: its changes, as the statistics count them, and queries.
#include "FMDurability.h"
#include "fmblock.h"
#include "fmhost.h"
#include "mistakes.h"

// --- Changes ------------------------------------------------------------------------------------

// The state as the statistics count it: pending, stored, failed, or not at all.
CFMStatistics::Counter CFMBlock::CounterOf(State state) {
    switch (state) {
    case State::Queued:
    case State::Writing:
        return CFMStatistics::PendingBlocks;
    case State::Stored:
    case State::Restored:
        return CFMStatistics::StoredBlocks;
    case State::Failed:
        return CFMStatistics::FailedBlocks;
    default:
        return CFMStatistics::COUNTERS;
    }
}

bool CFMBlock::IsUnstored(CFMStatistics::Counter state) {
    return state == CFMStatistics::PendingBlocks || state == CFMStatistics::FailedBlocks;
}

void CFMBlock::SetState(State state) {
    const CFMStatistics::Counter before = CounterOf(m_state.load(std::memory_order_relaxed));
    const CFMStatistics::Counter after = CounterOf(state);
    m_state.store(state, std::memory_order_release);
    if (before == after)
        return;
    g_statistics.SubtractBlock(before, m_totalLen);
    g_statistics.AddBlock(after, m_totalLen);
    const bool wasUnstored = IsUnstored(before);
    if (wasUnstored == IsUnstored(after))
        return;
    if (wasUnstored)
        g_statistics.SubtractUnstored(m_totalLen);
    else
        g_statistics.AddUnstored(m_totalLen);
    FMHost::CheckHighWaterMark();
}

// --- The table entry ----------------------------------------------------------------------------

FMBlockEntry CFMBlock::Describe(uint32_t epoch, uint32_t& serial) const {
    const State state = m_state;
    // The bytes of a failed store count as lost if the file is closed.
    const bool isAwaited =
        state == State::Queued || state == State::Writing || state == State::Failed;
    serial = isAwaited ? m_serial : 0;
    if (!IsOnDisk() || m_onDisk.epoch != epoch)
        return {m_blockID, 0, 0};
    return {m_blockID, m_totalLen, m_posInFile};
}

void CFMBlock::Restore(const FMBlockEntry& entry, uint32_t epoch) {
    m_onDisk.epoch = epoch;
    m_totalLen = entry.totalLen;
    m_position = entry.totalLen;
    m_posInFile = entry.posInFile;
    m_onDisk.isNamed = true;
    if (IsFull())
        SetState(State::Restored);
}

// --- Queries ------------------------------------------------------------------------------------

uint32_t CFMBlock::GetTotalLen() {
    CFMMistakes::CheckThread("IFMBlock::GetTotalLen");
    return m_totalLen;
}

uint32_t CFMBlock::GetPosition() {
    CFMMistakes::CheckThread("IFMBlock::GetPosition");
    return m_position;
}

CRtMessageBlock* CFMBlock::GetData() {
    CFMMistakes::CheckThread("IFMBlock::GetData");
    return m_data.get();
}

bool CFMBlock::IsComplete() {
    CFMMistakes::CheckThread("IFMBlock::IsComplete");
    return IsFull();
}

bool CFMBlock::IsInMemory() {
    CFMMistakes::CheckThread("IFMBlock::IsInMemory");
    return m_data != nullptr;
}

FMBlockState CFMBlock::GetState() const {
    switch (m_state.load(std::memory_order_acquire)) {
    case State::Empty:
        return BLOCK_STATE_EMPTY;
    case State::Filling:
        return BLOCK_STATE_FILLING;
    case State::Stored:
        return BLOCK_STATE_STORED;
    default:
        return BLOCK_STATE_COMPLETE;
    }
}

FMBlockStatus FMGetBlockStatus(IFMBlock& block) {
    return static_cast<CFMBlock&>(block).GetStatus(); // the only implementation of the interface
}

FMBlockStatus CFMBlock::GetStatus() const {
    CFMMistakes::CheckThread("FMGetBlockStatus");
    return {GetCondition(), m_data != nullptr, SurvivesKill()};
}

FMBlockCondition CFMBlock::GetCondition() const {
    switch (m_state.load(std::memory_order_acquire)) {
    case State::Empty:
        return FMBlockCondition::Empty;
    case State::Filling:
        return FMBlockCondition::Filling;
    case State::Queued:
    case State::Writing:
        return FMBlockCondition::Pending;
    case State::Failed:
        return FMBlockCondition::Failed;
    default:
        return IsOnDiskNow() ? FMBlockCondition::Stored : FMBlockCondition::Lost;
    }
}

bool CFMBlock::IsOnDiskNow() const {
    return IsOnDisk() && m_onDisk.epoch == m_file->GetEntry().GetEpoch() &&
           !m_file->GetEntry().IsDetached();
}
