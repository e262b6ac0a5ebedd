// What the file manager needs to know of other nodes. The application implements ISDUser and hands the
// nodes in.
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtReferenceControl.h"
#include "RtSid.h"
#include "RtString.h"

/// A node's address. The file manager copies it whole and never looks inside.
struct SDAddress {
    CRtString m_host;
    uint16_t m_port = 0;
    uint32_t m_value = 0;
};

/// One owner's address as handed out by IFMBlock::GetOwners.
struct RT_EXPORT SDDataAddressItem {
    SDDataAddressItem();
    SDDataAddressItem(const SDDataAddressItem& other);
    SDDataAddressItem& operator=(const SDDataAddressItem& other);
    ~SDDataAddressItem();

    SDAddress m_address;
    uint32_t m_tag = 0; ///< ISDUser::GetAddressTag
    CTavoSID m_sid;
};

/// A node of the conference. Implemented by the application.
///
/// Caveat: blocks hold references on nodes and may be destroyed on the read/write thread, so the count
/// must change atomically, and the destruction of a node must be possible on any thread. The other
/// operations are called on thread number 3 only, and must not call the block that asks.
class ISDUser : public IRtReferenceControl {
public:
    virtual const CTavoSID& GetNodeSID() = 0;
    /// Not used by the file manager; keeps the place of an operation.
    virtual void Reserved() {}
    /// Non-zero for a node that other nodes can fetch blocks from.
    virtual int IsP2P() = 0;
    /// Non-zero for a node with a public address.
    virtual int IsPublic() = 0;
    virtual uint32_t GetAddressTag() = 0;
    /// IPv4 address as a number; nodes that are not public are grouped by it.
    virtual uint32_t GetIP() = 0;
    virtual const SDAddress& GetAddress() = 0;

protected:
    ~ISDUser() override = default;
};
