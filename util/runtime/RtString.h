// CRtString: a string of bytes. A value type: copies are independent, no thread may change one that
// another thread reads. The bytes may hold zeros; Length counts them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

class CRtString {
public:
    CRtString() = default;
    /// A null text reads as empty.
    CRtString(const char* text) : m_bytes(text ? text : "") {}
    CRtString(const char* bytes, size_t length) : m_bytes(bytes, length) {}
    explicit CRtString(std::string bytes) : m_bytes(std::move(bytes)) {}
    explicit CRtString(std::string_view bytes) : m_bytes(bytes) {}

    const char* c_str() const { return m_bytes.c_str(); }
    const char* data() const { return m_bytes.data(); }
    char* data() { return m_bytes.data(); }
    /// Length in bytes, without the terminator that c_str adds.
    size_t size() const { return m_bytes.size(); }
    bool empty() const { return m_bytes.empty(); }
    void clear() { m_bytes.clear(); }
    /// Sizes the string to `length` bytes; bytes added are zero.
    void resize(size_t length) { m_bytes.resize(length); }
    char operator[](size_t index) const { return m_bytes[index]; }
    char back() const { return m_bytes.back(); }
    std::string_view view() const { return m_bytes; }

    CRtString& operator+=(const CRtString& other) {
        m_bytes += other.m_bytes;
        return *this;
    }
    CRtString& operator+=(char character) {
        m_bytes += character;
        return *this;
    }
    friend CRtString operator+(CRtString left, const CRtString& right) { return left += right; }
    friend bool operator==(const CRtString& left, const CRtString& right) = default;
    friend auto operator<=>(const CRtString& left, const CRtString& right) = default;

    CRtString Left(size_t length) const { return CRtString(m_bytes.substr(0, length)); }
    /// Without the blanks (the space character only) at both ends.
    CRtString TrimBlanks() const {
        const size_t first = m_bytes.find_first_not_of(' ');
        if (first == std::string::npos)
            return {};
        return CRtString(m_bytes.substr(first, m_bytes.find_last_not_of(' ') - first + 1));
    }

private:
    std::string m_bytes;
};
