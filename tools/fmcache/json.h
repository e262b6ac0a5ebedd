// Writer of JSON texts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

class Json {
public:
    Json& BeginObject() { return Begin('{'); }
    Json& EndObject() { return End('}'); }
    Json& BeginArray() { return Begin('['); }
    Json& EndArray() { return End(']'); }
    /// The key of the next member.
    Json& Key(std::string_view key);

    /// Invalid UTF-8 becomes replacement characters.
    Json& Value(std::string_view text);
    Json& Value(const char* text) { return Value(std::string_view(text)); }
    Json& Value(bool value) { return Plain(value ? "true" : "false"); }
    Json& Value(uint32_t value) { return Plain(std::to_string(value)); }
    Json& Value(uint64_t value) { return Plain(std::to_string(value)); }
    Json& Value(int64_t value) { return Plain(std::to_string(value)); }
    Json& Null() { return Plain("null"); }
    template <class T>
    Json& Member(std::string_view key, const T& value) {
        return Key(key).Value(value);
    }
    /// A name of any bytes. If it is not valid UTF-8, the member `key` + "Bytes" has its bytes in hexadecimal
    /// digits as well.
    Json& Name(std::string_view key, std::string_view name);

    /// The whole text, with a line end.
    std::string Text() const { return m_text + "\n"; }

private:
    Json& Begin(char bracket);
    Json& End(char bracket);
    Json& Plain(std::string_view text);
    void Separate();
    void Quote(std::string_view text);

    std::string m_text;
    bool m_first = true; // the next item needs no comma
};
