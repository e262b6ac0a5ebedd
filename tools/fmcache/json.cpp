#include "json.h"

#include <cstdio>

#include "text.h"

void Json::Separate() {
    if (!m_first)
        m_text += ',';
    m_first = false;
}

Json& Json::Begin(char bracket) {
    Separate();
    m_text += bracket;
    m_first = true;
    return *this;
}

Json& Json::End(char bracket) {
    m_text += bracket;
    m_first = false;
    return *this;
}

Json& Json::Plain(std::string_view text) {
    Separate();
    m_text += text;
    return *this;
}

Json& Json::Key(std::string_view key) {
    Separate();
    Quote(key);
    m_text += ':';
    m_first = true;
    return *this;
}

Json& Json::Value(std::string_view text) {
    Separate();
    Quote(text);
    return *this;
}

Json& Json::Name(std::string_view key, std::string_view name) {
    Member(key, name);
    if (IsUtf8(name))
        return *this;
    std::string digits;
    for (const char byte : name) {
        char text[4];
        std::snprintf(text, sizeof(text), "%02x", unsigned{static_cast<uint8_t>(byte)});
        digits += text;
    }
    return Member(std::string(key) + "Bytes", digits);
}

void Json::Quote(std::string_view text) {
    m_text += '"';
    while (!text.empty()) {
        uint32_t character = 0;
        const size_t length = TakeCharacter(text, character);
        char escape[8] = "\\ufffd";
        if (length > 0)
            std::snprintf(escape, sizeof(escape), "\\u%04x", character & 0xFFFFU);
        if (text[0] == '"' || text[0] == '\\')
            (m_text += '\\') += text[0];
        else if (length == 0 || character < 0x20 || (character >= 0x7F && character < 0xA0))
            m_text += escape;
        else
            m_text += text.substr(0, length);
        text.remove_prefix(length > 0 ? length : 1);
    }
    m_text += '"';
}
