/// @defgroup nodes Nodes
/// The interface between the file manager and the other nodes of a conference. The application implements
/// ISDUser and passes its objects to IFMBlock and IFMFile.
/// @{
#pragma once

#include <cstdint>

#include "RtExport.h"
#include "RtReferenceControl.h"
#include "RtSid.h"
#include "RtString.h"

/// Address of a node. The file manager copies it and does not interpret it.
struct SDAddress {
    CRtString m_host;     ///< host name or address
    uint16_t m_port = 0;  ///< port number
    uint32_t m_value = 0; ///< for the application
};

/// Address of one owner of a block, returned by IFMBlock::GetOwners.
struct SDDataAddressItem {
    /// A new item has an empty address, tag 0 and identifier 0. A copy is independent.
    ///@{
    RT_EXPORT SDDataAddressItem();
    RT_EXPORT SDDataAddressItem(const SDDataAddressItem& other);
    RT_EXPORT SDDataAddressItem& operator=(const SDDataAddressItem& other);
    RT_EXPORT ~SDDataAddressItem();
    ///@}

    SDAddress m_address; ///< copy of ISDUser::GetAddress
    uint32_t m_tag = 0;  ///< value of ISDUser::GetAddressTag
    CTavoSID m_sid;      ///< copy of ISDUser::GetNodeSID
};

/// A node of the conference, implemented by the application.
///
/// Blocks hold references to nodes, and the last reference to a block may be released on the read/write
/// thread. So the reference count must be atomic, as CRtCounted's is, and the destructor must work on any
/// thread. The library calls the other operations on the caller thread only, from inside operations of
/// IFMBlock and IFMFile. They must not call that block or file, and must not throw.
class ISDUser : public IRtReferenceControl {
public:
    /// The identifier of the node; the library copies it.
    virtual const CTavoSID& GetNodeSID() = 0;
    /// Not called by the library. It keeps the layout of the virtual table.
    virtual void Reserved() {}
    /// Non-zero if the node is peer-to-peer: other nodes can fetch blocks from it. The value must not change
    /// while the node is recorded as an owner.
    virtual int IsP2P() = 0;
    /// Non-zero if the node has a public address. The value must not change while the node is recorded as an
    /// owner.
    virtual int IsPublic() = 0;
    /// A number for the application, copied to SDDataAddressItem::m_tag.
    virtual uint32_t GetAddressTag() = 0;
    /// IPv4 address as a number, in any byte order. A server groups nodes without a public address by it. The
    /// value must not change while the node is recorded as an owner.
    virtual uint32_t GetIP() = 0;
    /// The address of the node; the library copies it.
    virtual const SDAddress& GetAddress() = 0;

protected:
    ~ISDUser() override = default;
};
/// @}
