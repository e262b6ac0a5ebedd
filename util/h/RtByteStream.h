// CRtByteStreamT: values to bytes and back over a message chain. Integers are little-endian whatever
// the host's order; a string is a 16-bit length and its bytes. A stream never throws: its first failure
// is kept, every later operation only logs. It lives on the stack of one encoding or decoding.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "RtLog.h"
#include "RtMessageBlock.h"
#include "RtResult.h"
#include "RtString.h"

/// The first length that is too long for a string.
constexpr uint32_t STRING_LEN_MAX = 0x7FFF;

/// An integer's bytes, lowest first, and back.
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

class CRtByteStreamT {
public:
    /// The chain stays the caller's.
    explicit CRtByteStreamT(CRtMessageBlock& chain) : m_chain(&chain) {}

    int GetReadResult() const { return m_ResultRead; }
    int GetWriteResult() const { return m_ResultWrite; }
    bool IsGood() const { return m_ResultRead == RT_OK && m_ResultWrite == RT_OK; }

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

    CRtByteStreamT& operator<<(uint16_t value) { return WriteInteger(value); }
    CRtByteStreamT& operator<<(uint32_t value) { return WriteInteger(value); }
    CRtByteStreamT& operator<<(int64_t value) { return WriteInteger(value); }
    CRtByteStreamT& operator<<(const CRtString& text) {
        return WriteString(text.data(), static_cast<uint32_t>(text.size()));
    }
    /// The value is left as it was when the read fails.
    CRtByteStreamT& operator>>(uint16_t& value) { return ReadInteger(value); }
    CRtByteStreamT& operator>>(uint32_t& value) { return ReadInteger(value); }
    CRtByteStreamT& operator>>(int64_t& value) { return ReadInteger(value); }

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
