/// @addtogroup bytes
/// @{
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "RtLog.h"
#include "RtMessageBlock.h"
#include "RtResult.h"
#include "RtString.h"

/// A string in a byte stream must be shorter than this (bytes).
constexpr uint32_t STRING_LEN_MAX = 0x7FFF;

/// Convert an integer to bytes in little-endian order and back, whatever the byte order of the host.
///@{
template <class T>
void RtPutLittleEndian(T value, uint8_t (&bytes)[sizeof(T)]) {
    const auto bits = static_cast<std::make_unsigned_t<T>>(value);
    for (size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = static_cast<uint8_t>(bits >> (8 * i));
}

template <class T>
T RtGetLittleEndian(const uint8_t (&bytes)[sizeof(T)]) {
    using Bits = std::make_unsigned_t<T>;
    Bits bits = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        bits = static_cast<Bits>(bits | (static_cast<Bits>(bytes[i]) << (8 * i)));
    return static_cast<T>(bits);
}
///@}

/// Encodes values into a message chain, and decodes them. Integers are little-endian. A string is a 16-bit
/// length in bytes and its bytes. The operations return no result codes. If an operation fails, the stream
/// keeps the result code of that direction (reading or writing), and each later operation in that direction
/// is a no-op that writes a log line. Reading a string can throw std::bad_alloc; the other operations throw
/// nothing. Use a stream on one thread at a time.
class CRtByteStreamT {
public:
    /// @param chain the chain to read from or write to. It remains the caller's and must outlive the stream.
    explicit CRtByteStreamT(CRtMessageBlock& chain) : m_chain(&chain) {}

    /// The result of all reads, or of all writes.
    /// @retval RT_OK none has failed.
    /// @retval RT_ERROR_OUT_OF_RANGE the chain has fewer bytes, or less space, than an operation needed.
    /// @retval RT_ERROR_IO a string has #STRING_LEN_MAX bytes or more.
    ///@{
    int GetReadResult() const { return m_ResultRead; }
    int GetWriteResult() const { return m_ResultWrite; }
    ///@}
    /// True when no operation has failed.
    bool IsGood() const { return m_ResultRead == RT_OK && m_ResultWrite == RT_OK; }

    /// Copy `length` bytes from or to the chain, and move its read or write pointers. If a read fails,
    /// `bytes` is unchanged.
    ///@{
    CRtByteStreamT& Read(void* bytes, uint32_t length) {
        if (m_ResultRead == RT_OK)
            m_ResultRead = m_chain->Read(bytes, length);
        if (m_ResultRead != RT_OK)
            RT_LOG(RT_LOG_ERROR, "CRtByteStreamT::Read, can't read. m_ResultRead="
                                     << m_ResultRead << " this=" << this);
        return *this;
    }

    CRtByteStreamT& Write(const void* bytes, uint32_t length) {
        if (m_ResultWrite == RT_OK)
            m_ResultWrite = m_chain->Write(bytes, length);
        if (m_ResultWrite != RT_OK)
            RT_LOG(RT_LOG_ERROR, "CRtByteStreamT::Write, can't write. m_ResultWrite="
                                     << m_ResultWrite << " this=" << this);
        return *this;
    }
    ///@}

    /// Append one value.
    ///@{
    CRtByteStreamT& operator<<(uint16_t value) { return WriteInteger(value); }
    CRtByteStreamT& operator<<(uint32_t value) { return WriteInteger(value); }
    CRtByteStreamT& operator<<(int64_t value) { return WriteInteger(value); }
    CRtByteStreamT& operator<<(const CRtString& text) {
        return WriteString(text.data(), static_cast<uint32_t>(text.size()));
    }
    ///@}

    /// Read one value. If the read fails, the value is unchanged.
    ///@{
    CRtByteStreamT& operator>>(uint16_t& value) { return ReadInteger(value); }
    CRtByteStreamT& operator>>(uint32_t& value) { return ReadInteger(value); }
    CRtByteStreamT& operator>>(int64_t& value) { return ReadInteger(value); }
    ///@}

    /// Appends a string of `len` bytes.
    CRtByteStreamT& WriteString(const char* bytes, uint32_t len) {
        if (!RT_CHECK(SOURCE, len < STRING_LEN_MAX, "len < STRING_LEN_MAX")) {
            RT_LOG(RT_LOG_ERROR,
                   "CRtByteStreamT::WriteString, too long, len=" << len << " this=" << this);
            m_ResultWrite = RT_ERROR_IO;
            return *this;
        }
        *this << static_cast<uint16_t>(len);
        return len > 0 ? Write(bytes, len) : *this;
    }

    /// Reads a string. If the read fails, the contents of `text` are unspecified.
    CRtByteStreamT& operator>>(CRtString& text) {
        uint16_t len = 0;
        *this >> len;
        if (!RT_CHECK(SOURCE, len < STRING_LEN_MAX, "len < STRING_LEN_MAX")) {
            RT_LOG(RT_LOG_ERROR, "CRtByteStreamT::operator>>CRtString, too long, len="
                                     << len << " this=" << this);
            m_ResultRead = RT_ERROR_IO;
            return *this;
        }
        text.clear();
        if (len == 0)
            return *this;
        text.resize(len);
        return Read(text.data(), len);
    }

private:
    template <class T>
    CRtByteStreamT& WriteInteger(T value) {
        uint8_t bytes[sizeof(T)];
        RtPutLittleEndian(value, bytes);
        return Write(bytes, sizeof(T));
    }

    template <class T>
    CRtByteStreamT& ReadInteger(T& value) {
        uint8_t bytes[sizeof(T)] = {};
        if (Read(bytes, sizeof(T)).m_ResultRead == RT_OK)
            value = RtGetLittleEndian<T>(bytes);
        return *this;
    }

    static constexpr char SOURCE[] = "util/h/RtByteStream";

    CRtMessageBlock* m_chain;
    int m_ResultRead = RT_OK;
    int m_ResultWrite = RT_OK;
};
/// @}
