// CFMStore: the event that stores a block. Stores of neighbours that wait one behind the other are written
// with one call of the system: for small blocks the call costs more than the bytes.
#pragma once

#include <cstdint>

#include "fmblock.h"
#include "fmfunctor.h"

class CFMStore final : public CFMRefFunctor1<CFMBlock, int> {
public:
    /// `pos`: where in the data file the bytes go, as long as the block is not written anew.
    CFMStore(CFMBlock* block, int64_t pos, CRtMessageChain bytes);
    int OnEventFire() override;

    CFMBlock& GetBlock() const { return *m_target.Get(); }
    const char* GetStart() const { return m_chain.Get()->GetTopLevelReadPtr(); }
    uint32_t GetLength() const { return m_chain.Get()->GetTopLevelLength(); }
    int64_t GetPos() const { return m_pos; }
    int64_t GetEnd() const { return m_pos + GetLength(); }

private:
    static bool IsNextTo(const IRtEvent& last, const IRtEvent& next);

    const int64_t m_pos;
};
