// The requests of other nodes for a block, and the nodes that own the block.
#include <algorithm>

#include "RtLog.h"
#include "RtResult.h"
#include "RtTimeValue.h"
#include "fmblock.h"
#include "fmhost.h"
#include "mistakes.h"
#include "statistics.h"

namespace {

constexpr size_t MAX_PUBLIC_OWNERS = 128;
constexpr size_t MAX_GROUP_OWNERS = 32;

using OwnerList = std::vector<CRtComAutoPtr<ISDUser>>;

// Adds the milliseconds of its lifetime to a statistics counter.
class CTimeCount {
public:
    explicit CTimeCount(CFMStatistics::Counter counter) : m_counter(counter) {}
    ~CTimeCount() { g_statistics.Add(m_counter, GetTickCountEx() - m_start); }
    CTimeCount(const CTimeCount&) = delete;
    CTimeCount& operator=(const CTimeCount&) = delete;

private:
    const CFMStatistics::Counter m_counter;
    uint64_t m_start = GetTickCountEx();
};

auto FindOwner(OwnerList& owners, const ISDUser* owner) {
    return std::find_if(owners.begin(), owners.end(),
                        [owner](const auto& each) { return each.Get() == owner; });
}

void RemoveOwner(OwnerList& owners, const ISDUser* owner) {
    if (const auto it = FindOwner(owners, owner); it != owners.end())
        owners.erase(it);
}

ISDUser* PickOwner(const OwnerList& owners) {
    const int index = FMHost::Random(static_cast<int>(owners.size()));
    return owners[static_cast<size_t>(index)].Get();
}

} // namespace

SDDataAddressItem::SDDataAddressItem() = default;
SDDataAddressItem::SDDataAddressItem(const SDDataAddressItem& other) = default;
SDDataAddressItem& SDDataAddressItem::operator=(const SDDataAddressItem& other) = default;
SDDataAddressItem::~SDDataAddressItem() = default;

// --- Requests -----------------------------------------------------------------------------------

const std::list<FMRetrieveItem>& CFMBlock::GetRetrieves() {
    CFMMistakes::CheckThread("IFMBlock::GetRetrieves");
    return m_retrieves;
}

void CFMBlock::AddRetrieve(ISDUser* node, uint32_t pri) noexcept {
    CFMMistakes::CheckThread("IFMBlock::AddRetrieve");
    CheckValid();
    if (!IsGiven(node, "node"))
        return;
    m_retrieves.push_back({node, pri});
    RT_LOG(RT_LOG_TRACE, "CFMBlock::AddRetrieve, fileID=" << FMFileIDToString(GetFileID())
                                                          << ",blockID=" << m_blockID
                                                          << ",node=" << node->GetNodeSID()
                                                          << ",pri=" << pri << " this=" << this);
}

int CFMBlock::CancelRetrieve(ISDUser* node) noexcept {
    CFMMistakes::CheckThread("IFMBlock::CancelRetrieve");
    if (!IsGiven(node, "node"))
        return 0;
    const auto it = std::find_if(m_retrieves.begin(), m_retrieves.end(), [node](const auto& each) {
        return each.m_userNode.Get() == node;
    });
    if (it == m_retrieves.end())
        return 0;
    const FMRetrieveItem removed = *it; // keeps the node alive until the log line is written
    m_retrieves.erase(it);
    RT_LOG(RT_LOG_TRACE, "CFMBlock::CancelRetrieve, fileID="
                             << FMFileIDToString(GetFileID()) << ",blockID=" << m_blockID
                             << ",node=" << node->GetNodeSID() << " this=" << this);
    return 1;
}

int CFMClientBlock::GetRetrieveType(const FMRetrieveItem&) {
    CFMMistakes::CheckThread("IFMBlock::GetRetrieveType");
    return IsFull() ? FM_RETRIEVE_HERE : FM_RETRIEVE_CLIENT_NOT_YET;
}

int CFMServerBlock::GetRetrieveType(const FMRetrieveItem& retrieve) {
    CFMMistakes::CheckThread("IFMBlock::GetRetrieveType");
    if (static_cast<int32_t>(retrieve.m_pri) > 1 && retrieve.m_userNode &&
        retrieve.m_userNode->IsP2P() && m_p2pOwnerCount > 0)
        return FM_RETRIEVE_PEERS;
    return IsFull() ? FM_RETRIEVE_HERE : FM_RETRIEVE_NOT_YET;
}

// --- Owners -------------------------------------------------------------------------------------

int CFMBlock::GetOwners(const FMRetrieveItem&, uint16_t* count, SDDataAddressItem*) noexcept {
    *count = 0;
    return RT_ERROR_NOT_SUPPORTED;
}

void CFMClientBlock::SetOwner(ISDUser* owner, int bOwn) noexcept {
    CFMMistakes::CheckThread("IFMBlock::SetOwner");
    const CTimeCount time(CFMStatistics::TimeSetOwner);
    if (!IsGiven(owner, "owner"))
        return;
    const CRtComAutoPtr<ISDUser> kept(owner); // the log line below reads it
    if (bOwn)
        m_owners.emplace_back(owner);
    else
        RemoveOwner(m_owners, owner);
    RT_LOG(RT_LOG_TRACE, "CFMClientBlock::SetOwner, block="
                             << GetBlockID() << ",address=" << uint64_t{m_owners.size()}
                             << ",owner=" << owner->GetNodeSID() << (bOwn ? " own" : " noown")
                             << " this=" << this);
}

bool CFMClientBlock::HasOwner() {
    CFMMistakes::CheckThread("IFMBlock::HasOwner");
    return !m_owners.empty();
}

ISDUser* CFMClientBlock::GetOwner() {
    CFMMistakes::CheckThread("IFMBlock::GetOwner");
    return m_owners.empty() ? nullptr : PickOwner(m_owners);
}

void CFMServerBlock::SetOwner(ISDUser* owner, int bOwn) noexcept {
    CFMMistakes::CheckThread("IFMBlock::SetOwner");
    const CTimeCount time(CFMStatistics::TimeSetOwner);
    if (!IsGiven(owner, "owner"))
        return;
    const CRtComAutoPtr<ISDUser> kept(owner); // the log line below reads it
    if (owner->IsP2P())
        m_p2pOwnerCount = static_cast<uint16_t>(m_p2pOwnerCount + (bOwn ? 1 : -1));
    if (owner->IsPublic())
        bOwn ? AddPublicOwner(owner) : RemovePublicOwner(owner);
    else
        bOwn ? AddNetOwner(owner) : RemoveNetOwner(owner);
}

void CFMServerBlock::AddPublicOwner(ISDUser* owner) {
    if (m_owners.size() >= MAX_PUBLIC_OWNERS)
        return;
    m_owners.emplace_back(owner);
    LogPublicOwner(owner, " pub ownIP=");
}

void CFMServerBlock::RemovePublicOwner(ISDUser* owner) {
    RemoveOwner(m_owners, owner);
    LogPublicOwner(owner, " pub noown,IP=");
}

void CFMServerBlock::LogPublicOwner(ISDUser* owner, const char* verb) {
    RT_LOG(RT_LOG_TRACE, "CFMServerBlock::SetOwner, block="
                             << GetBlockID() << ",pubs=" << uint64_t{m_owners.size()}
                             << ",nets=" << uint64_t{m_netOwners.size()}
                             << ",owner=" << owner->GetNodeSID() << verb << owner->GetIP()
                             << ",isp2p=" << owner->IsP2P() << " this=" << this);
}

void CFMServerBlock::AddNetOwner(ISDUser* owner) {
    OwnerList& group = m_netOwners[owner->GetIP()];
    if (group.size() >= MAX_GROUP_OWNERS)
        return;
    group.emplace_back(owner);
    LogNetOwner(owner, " net own,IP=", group.size(), "");
}

void CFMServerBlock::RemoveNetOwner(ISDUser* owner) {
    const auto group = m_netOwners.find(owner->GetIP());
    if (group == m_netOwners.end())
        return;
    RemoveOwner(group->second, owner);
    const size_t left = group->second.size();
    if (left == 0)
        m_netOwners.erase(group);
    LogNetOwner(owner, " net noown,IP=", left, left == 0 ? " remove" : "");
}

void CFMServerBlock::LogNetOwner(ISDUser* owner, const char* verb, size_t groupSize,
                                 const char* tail) {
    RT_LOG(RT_LOG_TRACE, "CFMServerBlock::SetOwner, block="
                             << GetBlockID() << ",pubs=" << uint64_t{m_owners.size()} << ",nets="
                             << uint64_t{m_netOwners.size()} << ",owner=" << owner->GetNodeSID()
                             << ",isp2p=" << owner->IsP2P() << verb << owner->GetIP() << " :"
                             << uint64_t{groupSize} << tail << " this=" << this);
}

bool CFMServerBlock::HasOwner() {
    CFMMistakes::CheckThread("IFMBlock::HasOwner");
    return !m_owners.empty() || !m_netOwners.empty();
}

ISDUser* CFMServerBlock::GetOwner() {
    CFMMistakes::CheckThread("IFMBlock::GetOwner");
    const CTimeCount time(CFMStatistics::TimeGetOwner);
    if (!m_owners.empty())
        return PickOwner(m_owners);
    return m_netOwners.empty() ? nullptr : PickOwner(m_netOwners.begin()->second);
}

int CFMServerBlock::GetOwners(const FMRetrieveItem& retrieve, uint16_t* count,
                              SDDataAddressItem* items) noexcept {
    CFMMistakes::CheckThread("IFMBlock::GetOwners");
    if (!IsGiven(retrieve.m_userNode.Get(), "retrieve.m_userNode.Get()"))
        return RT_ERROR_INVALID_ARG;
    const CTimeCount time(CFMStatistics::TimeGetOwners);
    const uint16_t capacity = *count;
    uint16_t filled = 0;
    if (!retrieve.m_userNode->IsPublic()) {
        const auto group = m_netOwners.find(retrieve.m_userNode->GetIP());
        if (group != m_netOwners.end())
            filled = FillItems(group->second, capacity, items);
    }
    const auto room = static_cast<uint16_t>(capacity - filled);
    filled = static_cast<uint16_t>(filled + FillItems(m_owners, room, items + filled));
    *count = filled;
    return RT_OK;
}

// Starts at a random owner, so that the requests spread over all owners.
uint16_t CFMServerBlock::FillItems(const OwnerList& owners, uint16_t capacity,
                                   SDDataAddressItem* items) {
    if (capacity == 0 || owners.empty())
        return 0;
    const auto size = owners.size();
    const auto start = static_cast<size_t>(FMHost::Random(static_cast<int>(size)));
    uint16_t filled = 0;
    for (size_t looked = 0; looked < size && filled < capacity; ++looked) {
        ISDUser& owner = *owners[(start + looked) % size];
        if (!owner.IsP2P())
            continue;
        SDDataAddressItem& item = items[filled++];
        item.m_address = owner.GetAddress();
        item.m_tag = owner.GetAddressTag();
        item.m_sid = owner.GetNodeSID();
    }
    return filled;
}
