// Runs a program of reads and writes of a message chain and its byte stream, and compares with a model: the
// readable bytes and the free space.
#include "RtByteStream.h"

#include <optional>

#include "support.h"
#include "testing/pattern.h"

namespace {

using fuzz::Input;

// The fuzz targets run on little-endian hosts only.
template <class T>
T Number(const std::string& bytes) {
    T value;
    std::memcpy(&value, bytes.data(), sizeof(T));
    return value;
}

uint32_t Size(const std::string& bytes) { return static_cast<uint32_t>(bytes.size()); }

class Program {
public:
    void Run(Input& input) {
        for (int step = 0; step < 60 && !input.IsOver(); ++step) {
            Step(input);
            Require(m_chain->GetChainedSpace() == m_space);
            Require(m_chain->GetChainedLength() == m_readable.size());
            Require(m_chain->FlattenChained().view() == m_readable);
        }
    }

private:
    void Step(Input& input) {
        using P = Program;
        static constexpr void (P::*steps[])(Input&) = {
            &P::AppendBlock,     &P::Duplicate,     &P::WriteText,      &P::ReadText,
            &P::WriteBytes,      &P::ReadBytes,     &P::Write<int64_t>, &P::Write<uint32_t>,
            &P::Write<uint16_t>, &P::Read<int64_t>, &P::Read<uint32_t>, &P::Read<uint16_t>};
        (this->*steps[input.Below(std::size(steps))])(input);
    }

    void AppendBlock(Input& input) {
        const uint32_t space = input.Below(300);
        m_chain->Append(CRtMessageBlock::Create(space));
        m_space += space;
    }

    // Reading one duplicate does not change another.
    void Duplicate(Input&) {
        const CRtMessageChain emptied = m_chain->DuplicateChained();
        m_chain = m_chain->DuplicateChained();
        std::string all(m_readable.size(), '\0');
        Require(emptied->Read(all.data(), Size(all)) == 0 && all == m_readable);
    }

    void WriteBytes(Input& input) {
        const std::string bytes = input.Take(input.Byte());
        Require((m_chain->Write(bytes.data(), Size(bytes)) == 0) == Put(bytes));
    }

    void ReadBytes(Input& input) {
        std::string bytes(input.Below(600), '\0');
        const bool isRead = m_chain->Read(bytes.data(), Size(bytes)) == 0;
        Require((isRead ? std::optional(bytes) : std::nullopt) == Get(bytes.size()));
    }

    template <class T>
    void Write(Input& input) {
        const std::string bytes = input.Take(sizeof(T));
        CRtByteStreamT stream(*m_chain);
        stream << Number<T>(bytes);
        Require((stream.GetWriteResult() == 0) == Put(bytes));
    }

    template <class T>
    void Read(Input& input) {
        T value = 77;
        CRtByteStreamT stream(*m_chain);
        stream >> value;
        const auto bytes = Get(sizeof(T));
        Require(stream.IsGood() == bytes.has_value());
        Require(value == (bytes ? Number<T>(*bytes) : T{77}));
        char none = 0;
        if (!bytes) // a failed stream stays failed
            Require(stream.Read(&none, input.Below(2)).GetReadResult() == RT_ERROR_OUT_OF_RANGE);
    }

    void WriteText(Input& input) {
        const std::string text = Pattern(1, input.Below(100));
        CRtByteStreamT stream(*m_chain);
        stream << CRtString(std::string_view(text));
        const bool fits = Put({static_cast<char>(text.size()), '\0'}) && Put(text);
        Require((stream.GetWriteResult() == 0) == fits);
    }

    void ReadText(Input&) {
        CRtString text;
        CRtByteStreamT stream(*m_chain);
        stream >> text;
        const auto prefix = Get(2);
        const size_t length = prefix ? Number<uint16_t>(*prefix) : 0;
        if (length >= STRING_LEN_MAX)
            return Require(stream.GetReadResult() == RT_ERROR_IO);
        const auto bytes = prefix ? Get(length) : std::nullopt;
        Require(stream.IsGood() == bytes.has_value() && (!bytes || text.view() == *bytes));
    }

    // The model: a write or a read transfers all bytes or none.
    bool Put(const std::string& bytes) {
        if (bytes.size() > m_space)
            return false;
        m_space -= bytes.size();
        m_readable += bytes;
        return true;
    }
    std::optional<std::string> Get(size_t length) {
        if (length > m_readable.size())
            return std::nullopt;
        const std::string bytes = m_readable.substr(0, length);
        m_readable.erase(0, length);
        return bytes;
    }

    CRtMessageChain m_chain = CRtMessageBlock::Create(0);
    std::string m_readable;
    size_t m_space = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
    Input input(data, size);
    Program().Run(input);
    return 0;
}
