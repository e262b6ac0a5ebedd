/// @defgroup nodes Nodes
/// What the file manager has to know about other nodes. The application implements ISDUser and passes its
/// objects to IFMBlock.
/// @{
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtReferenceControl.h"
#include "RtSid.h"
#include "RtString.h"

/// Address of a node. The file manager copies it without interpreting it.
struct SDAddress {
    CRtString m_host;     ///< host name or address
    uint16_t m_port = 0;  ///< port number
    uint32_t m_value = 0; ///< for the application
};

/// Address of one owner, as IFMBlock::GetOwners returns it.
struct SDDataAddressItem {
    /// Empty address, tag 0, identifier 0. Copies copy all members.
    ///@{
    RT_EXPORT SDDataAddressItem();
    RT_EXPORT SDDataAddressItem(const SDDataAddressItem& other);
    RT_EXPORT SDDataAddressItem& operator=(const SDDataAddressItem& other);
    RT_EXPORT ~SDDataAddressItem();
    ///@}

    SDAddress m_address; ///< ISDUser::GetAddress
    uint32_t m_tag = 0;  ///< ISDUser::GetAddressTag
    CTavoSID m_sid;      ///< ISDUser::GetNodeSID
};

/// A node of the conference, implemented by the application.
///
/// Blocks hold references to nodes, and the last reference to a block may be released on the read/write
/// thread. So the count must be atomic (CRtCounted is), and a node must be destructible on any thread. The
/// other operations are called on the caller thread only, from inside IFMBlock and IFMFile operations, and
/// must not call the block that asks.
class ISDUser : public IRtReferenceControl {
public:
    /// The identifier of the node; the caller copies it.
    virtual const CTavoSID& GetNodeSID() = 0;
    /// Never called. Keeps the virtual table layout.
    virtual void Reserved() {}
    /// Non-zero if other nodes can fetch blocks from this node. Must not change while the node is recorded
    /// as an owner.
    virtual int IsP2P() = 0;
    /// Non-zero if the node has a public address. Must not change while the node is recorded as an owner.
    virtual int IsPublic() = 0;
    /// A number for the application, copied to SDDataAddressItem::m_tag.
    virtual uint32_t GetAddressTag() = 0;
    /// IPv4 address as a number. A server groups nodes without a public address by it. Must not change
    /// while the node is recorded as an owner.
    virtual uint32_t GetIP() = 0;
    /// The address of the node; the caller copies it.
    virtual const SDAddress& GetAddress() = 0;

protected:
    ~ISDUser() override = default;
};
/// @}
