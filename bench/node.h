// A conference node, as an application would implement ISDUser.
#pragma once

#include "ISDUser.h"

namespace bench {

class Node final : public CRtCounted<ISDUser> {
public:
    Node(bool isPublic, uint32_t ip) : m_public(isPublic), m_ip(ip) {}
    const CTavoSID& GetNodeSID() override { return m_sid; }
    int IsP2P() override { return 1; }
    int IsPublic() override { return m_public; }
    uint32_t GetAddressTag() override { return 0; }
    uint32_t GetIP() override { return m_ip; }
    const SDAddress& GetAddress() override { return m_address; }

private:
    CTavoSID m_sid;
    SDAddress m_address;
    bool m_public;
    uint32_t m_ip;
};

} // namespace bench
