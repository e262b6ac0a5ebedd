// A conference node, as an application would implement ISDUser. Whoever created it destroys it.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "ISDUser.h"
#include "testing/require.h"

class Node : public ISDUser {
public:
    /// @param number identifies it: its hash, its host, and with 1 added its tag
    Node(uint32_t number, bool p2p, bool isPublic, uint32_t ip)
        : m_sid(number), m_p2p(p2p), m_public(isPublic), m_ip(ip) {
        m_address.m_host = CRtString(std::to_string(number));
    }
    ~Node() override { Require(references == 0, "a destroyed node is still referenced"); }
    uint32_t AddReference() override { return static_cast<uint32_t>(++references); }
    uint32_t ReleaseReference() override { return static_cast<uint32_t>(--references); }
    const CTavoSID& GetNodeSID() override { return m_sid; }
    int IsP2P() override { return m_p2p; }
    int IsPublic() override { return m_public; }
    uint32_t GetAddressTag() override { return m_sid.GetHashValue() + 1; }
    uint32_t GetIP() override { return m_ip; }
    const SDAddress& GetAddress() override { return m_address; }
    std::atomic<int> references{0};

private:
    CTavoSID m_sid;
    SDAddress m_address;
    bool m_p2p;
    bool m_public;
    uint32_t m_ip;
};

inline std::vector<std::unique_ptr<Node>> Nodes(uint32_t count, bool p2p, bool isPublic,
                                                uint32_t ip) {
    static uint32_t number = 0;
    std::vector<std::unique_ptr<Node>> nodes;
    for (uint32_t i = 0; i < count; ++i)
        nodes.push_back(std::make_unique<Node>(++number, p2p, isPublic, ip));
    return nodes;
}
