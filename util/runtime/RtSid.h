/// @addtogroup nodes
/// @{
#pragma once

#include <cstdint>

/// The identifier of a node, a value of 16 bytes. Its packed word of 32 bits contains, from the most
/// significant bit: server (8 bits), type (4 bits), node sequence (12 bits), sequence (8 bits).
class CTavoSID {
public:
    /// Without arguments the identifier is 0.
    ///@{
    CTavoSID() = default;
    explicit CTavoSID(uint32_t packed, uint32_t second = 0, uint64_t virtualIP = 0)
        : m_packed(packed), m_second(second), m_virtualIP(virtualIP) {}
    ///@}

    /// The fields of the packed word.
    ///@{
    uint32_t GetServerId() const { return m_packed >> 24; }
    uint32_t GetType() const { return (m_packed >> 20) & 0xFU; }
    uint32_t GetNodeSequence() const { return (m_packed >> 8) & 0xFFFU; }
    uint32_t GetSequence() const { return m_packed & 0xFFU; }
    ///@}
    /// The packed word.
    uint32_t GetHashValue() const { return m_packed; }
    /// The virtual IP address, which the file manager does not use.
    ///@{
    uint64_t GetVirtualIP() const { return m_virtualIP; }
    void SetVirtualIP(uint64_t virtualIP) { m_virtualIP = virtualIP; }
    ///@}
    /// Returns this identifier with sequence 0: the identifier of the node itself.
    CTavoSID GetNodeId() const { return CTavoSID(m_packed & ~0xFFU, m_second, m_virtualIP); }

    /// Compare the packed words as unsigned numbers; the other parts are ignored.
    ///@{
    bool operator<(const CTavoSID& other) const { return m_packed < other.m_packed; }
    bool operator>(const CTavoSID& other) const { return m_packed > other.m_packed; }
    ///@}

private:
    uint32_t m_packed = 0;
    uint32_t m_second = 0;
    uint64_t m_virtualIP = 0;
};

static_assert(sizeof(CTavoSID) == 16);
/// @}
