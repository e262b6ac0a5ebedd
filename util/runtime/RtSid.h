// CTavoSID: the identifier of a node of a conference, a 16-byte value. The packed word reads, from the
// top: server (8 bits), type (4), node sequence (12), sequence (8).
#pragma once

#include <cstdint>

class CTavoSID {
public:
    CTavoSID() = default;
    explicit CTavoSID(uint32_t packed, uint32_t second = 0, uint64_t virtualIP = 0)
        : m_packed(packed), m_second(second), m_virtualIP(virtualIP) {}

    uint32_t GetServerId() const { return m_packed >> 24; }
    uint32_t GetType() const { return (m_packed >> 20) & 0xFU; }
    uint32_t GetNodeSequence() const { return (m_packed >> 8) & 0xFFFU; }
    uint32_t GetSequence() const { return m_packed & 0xFFU; }
    /// The whole packed word.
    uint32_t GetHashValue() const { return m_packed; }
    uint64_t GetVirtualIP() const { return m_virtualIP; }
    void SetVirtualIP(uint64_t virtualIP) { m_virtualIP = virtualIP; }
    /// The same identifier with sequence 0: it names the node itself.
    CTavoSID GetNodeId() const { return CTavoSID(m_packed & ~0xFFU, m_second, m_virtualIP); }

    /// Both order by the packed word alone, as an unsigned number.
    bool operator<(const CTavoSID& other) const { return m_packed < other.m_packed; }
    bool operator>(const CTavoSID& other) const { return m_packed > other.m_packed; }

private:
    uint32_t m_packed = 0;
    uint32_t m_second = 0;
    uint64_t m_virtualIP = 0;
};

static_assert(sizeof(CTavoSID) == 16);
