// Runs a program of reads, writes and changes of a message chain and its byte stream, and compares with a
// model: for each block of the chain the readable bytes and the free space.
#include "RtByteStream.h"

#include <list>
#include <vector>

#include "support.h"
#include "testing/pattern.h"

namespace {

using fuzz::Input;

struct Part {
    std::string readable;
    size_t space = 0;
};

template <class T>
T Number(const std::string& bytes) {
    uint64_t value = 0;
    for (size_t i = sizeof(T); i-- > 0;)
        value = value << 8 | static_cast<uint8_t>(bytes[i]);
    return static_cast<T>(value);
}

uint32_t Size(const std::string& bytes) { return static_cast<uint32_t>(bytes.size()); }

class Program {
public:
    void Run(Input& input) {
        AddPart(input);
        for (int step = 0; step < 60 && !input.IsOver(); ++step) {
            Step(input);
            Check();
        }
    }

private:
    void Step(Input& input) {
        using P = Program;
        static constexpr void (P::*steps[])(Input&) = {
            &P::AddPart,         &P::Duplicate,       &P::StepPointer,   &P::WriteText,
            &P::ReadText,        &P::WriteRaw,        &P::ReadRaw,       &P::Write<int64_t>,
            &P::Write<uint32_t>, &P::Write<uint16_t>, &P::Read<int64_t>, &P::Read<uint32_t>,
            &P::Read<uint16_t>};
        (this->*steps[input.Below(std::size(steps))])(input);
    }

    // Large values make a program slow and seldom find more faults.
    static uint32_t SeldomLarge(Input& input, uint32_t usually, uint32_t limit) {
        return input.Below(input.Below(16) == 0 ? limit : usually);
    }

    void AddPart(Input& input) {
        const uint32_t kind = input.Below(4);
        if (m_parts.size() > 12)
            return;
        Part& part = m_parts.emplace_back();
        CRtMessageChain block;
        if (kind < 2) {
            part.space = kind == 0 ? input.Byte() : SeldomLarge(input, 300, 40000);
            block = CRtMessageBlock::Create(static_cast<uint32_t>(part.space));
        } else {
            part.readable = input.Take(input.Byte());
            const std::string& bytes = m_wrapped.emplace_back(part.readable);
            block = kind == 2 ? CRtMessageBlock::Wrap(bytes.data(), Size(bytes))
                              : CRtMessageBlock::CreateCopy(bytes.data(), Size(bytes));
        }
        if (m_chain)
            m_chain->Append(std::move(block));
        else
            m_chain = std::move(block);
    }

    // A change of one duplicate does not change another; the program continues with the second duplicate.
    void Duplicate(Input&) {
        const CRtMessageChain emptied = m_chain->DuplicateChained();
        m_chain = m_chain->DuplicateChained();
        std::string all(Readable().size(), '\0');
        Require(emptied->Read(all.data(), Size(all)) == 0 && all == Readable());
        Require(emptied->GetChainedLength() == 0);
    }

    // Advances the read pointer of a single block.
    void StepPointer(Input& input) {
        size_t at = input.Below(static_cast<uint32_t>(m_parts.size()));
        const uint32_t step = input.Below(300);
        Part& part = m_parts[at];
        CRtMessageBlock* block = m_chain.get();
        while (at-- > 0)
            block = block->GetNext();
        const bool fits = step <= part.readable.size();
        Require(block->AdvanceTopLevelReadPtr(step) == (fits ? 0 : RT_ERROR_OUT_OF_RANGE));
        part.readable.erase(0, fits ? step : 0);
    }

    // Model of a write: fills the free space of the parts in order, with all bytes or none.
    bool Put(std::string_view bytes) {
        if (bytes.size() > Space())
            return false;
        for (Part& part : m_parts) {
            const size_t here = std::min(part.space, bytes.size());
            part.readable += bytes.substr(0, here);
            part.space -= here;
            bytes.remove_prefix(here);
        }
        return true;
    }

    // Model of a read.
    bool Get(size_t length, std::string& bytes) {
        if (length > Readable().size())
            return false;
        for (Part& part : m_parts) {
            const size_t here = std::min(part.readable.size(), length - bytes.size());
            bytes += part.readable.substr(0, here);
            part.readable.erase(0, here);
        }
        return true;
    }

    void WriteRaw(Input& input) {
        const std::string bytes = input.Take(input.Byte());
        Require((m_chain->Write(bytes.data(), Size(bytes)) == 0) == Put(bytes));
    }

    void ReadRaw(Input& input) {
        std::string bytes(input.Below(600), '\0');
        std::string expected;
        const bool there = Get(bytes.size(), expected);
        Require((m_chain->Read(bytes.data(), Size(bytes)) == 0) == there);
        Require(!there || bytes == expected);
    }

    template <class T>
    void Write(Input& input) {
        const std::string bytes = input.Take(sizeof(T));
        CRtByteStreamT stream(*m_chain);
        stream << Number<T>(bytes);
        Require((stream.GetWriteResult() == 0) == Put(bytes) && stream.GetReadResult() == 0);
    }

    template <class T>
    void Read(Input& input) {
        T value = 77;
        CRtByteStreamT stream(*m_chain);
        stream >> value;
        std::string bytes;
        const bool there = Get(sizeof(T), bytes);
        Require(stream.IsGood() == there && value == (there ? Number<T>(bytes) : T{77}));
        char none = 0;
        if (!there) // a failed stream stays failed
            Require(stream.Read(&none, input.Below(2)).GetReadResult() == RT_ERROR_OUT_OF_RANGE);
    }

    void WriteText(Input& input) {
        const std::string text = Pattern(1, SeldomLarge(input, 100, 33000));
        CRtByteStreamT stream(*m_chain);
        stream << CRtString(std::string_view(text));
        if (text.size() >= STRING_LEN_MAX)
            return Require(stream.GetWriteResult() == RT_ERROR_IO);
        const std::string length{static_cast<char>(text.size() & 0xFF),
                                 static_cast<char>(text.size() >> 8)};
        const bool fits = Put(length) && Put(text); // the length stays if the text fails
        Require((stream.GetWriteResult() == 0) == fits);
    }

    void ReadText(Input&) {
        CRtString text("before");
        CRtByteStreamT stream(*m_chain);
        stream >> text;
        std::string prefix, bytes;
        const bool any = Get(2, prefix);
        const size_t length = any ? Number<uint16_t>(prefix) : 0;
        if (length >= STRING_LEN_MAX)
            return Require(stream.GetReadResult() == RT_ERROR_IO && text.view() == "before");
        const bool there = any && Get(length, bytes);
        Require(stream.IsGood() == there);
        Require(there ? text.view() == bytes : text.size() == length);
    }

    std::string Readable() const {
        std::string all;
        for (const Part& part : m_parts)
            all += part.readable;
        return all;
    }
    size_t Space() const {
        size_t all = 0;
        for (const Part& part : m_parts)
            all += part.space;
        return all;
    }
    void Check() const {
        Require(m_chain->GetChainedLength() == Readable().size() &&
                m_chain->GetChainedSpace() == Space());
        Require(m_chain->FlattenChained().view() == Readable());
    }

    std::vector<Part> m_parts;
    std::list<std::string> m_wrapped; // outlive the chain; their addresses do not change
    CRtMessageChain m_chain;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
    Input input(data, size);
    Program().Run(input);
    return 0;
}
