/// @addtogroup bytes
/// @{
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

/// A string of bytes of any encoding; it may contain zero bytes, and lengths are in bytes. A value type:
/// copies are independent. Operations that allocate memory can throw std::bad_alloc.
class CRtString {
public:
    /// An empty string, or a copy of the argument. If `text` is null, the string is empty.
    ///@{
    CRtString() = default;
    CRtString(const char* text) : m_bytes(text ? text : "") {}
    CRtString(const char* bytes, size_t length) : m_bytes(bytes, length) {}
    explicit CRtString(std::string bytes) : m_bytes(std::move(bytes)) {}
    explicit CRtString(std::string_view bytes) : m_bytes(bytes) {}
    ///@}

    /// These do the same as the members of std::string with the same names.
    ///@{
    const char* c_str() const { return m_bytes.c_str(); }
    const char* data() const { return m_bytes.data(); }
    char* data() { return m_bytes.data(); }
    size_t size() const { return m_bytes.size(); }
    bool empty() const { return m_bytes.empty(); }
    void clear() { m_bytes.clear(); }
    void resize(size_t length) { m_bytes.resize(length); }
    char operator[](size_t index) const { return m_bytes[index]; }
    char back() const { return m_bytes.back(); }
    ///@}
    /// A view of the bytes, valid until the string changes or is destroyed.
    std::string_view view() const { return m_bytes; }

    /// Append.
    ///@{
    CRtString& operator+=(const CRtString& other) {
        m_bytes += other.m_bytes;
        return *this;
    }
    CRtString& operator+=(char character) {
        m_bytes += character;
        return *this;
    }
    friend CRtString operator+(CRtString left, const CRtString& right) { return left += right; }
    ///@}
    /// Compare byte by byte.
    ///@{
    friend bool operator==(const CRtString& left, const CRtString& right) = default;
    friend auto operator<=>(const CRtString& left, const CRtString& right) = default;
    ///@}

    /// Returns the first `length` bytes, or all bytes if the string is shorter.
    CRtString Left(size_t length) const { return CRtString(m_bytes.substr(0, length)); }
    /// Returns a copy without the spaces (U+0020 only) at both ends.
    CRtString TrimBlanks() const {
        const size_t first = m_bytes.find_first_not_of(' ');
        if (first == std::string::npos)
            return {};
        return CRtString(m_bytes.substr(first, m_bytes.find_last_not_of(' ') - first + 1));
    }

private:
    std::string m_bytes;
};
/// @}
